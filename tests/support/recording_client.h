// A site client without a camera: tests hand it its frames and say what its connection does.
#pragma once

#include "cms/live/client_base.h"
#include "cms/live/media/event_marks.h"
#include "tests/support/recording_reader.h"

namespace test {

class RecordingClient final : public CMSClientBase {
 public:
  explicit RecordingClient(const stRecordParam& param, unsigned channels = 1) {
    AllocChannelData(channels);
    SetRecordParam(param);
    SetRecordDevice(L"10.0.0.1", L"Hof", 554);
    SetState(cms::ConnectionState::kPlaying);
  }
  int SetConfig(void*) override { return 1; }
  int Play() override { return 1; }
  int Pause() override { return 0; }
  int Resume() override { return 0; }
  int StopPlay() override { return 1; }
  int ChangeRecordFile() override { return ChangeRecorderFile(); }
  int ChangeRecordPath(const wchar_t* path) override { return ChangeRecorderPath(path); }
  using CMSClientBase::ChangeRecordPath;

  // The next frame of the source, with event marks in its header.
  void Give(FrameSource& source, cms::EventMarks marks = {}, unsigned channel = 0) {
    FrameSource::Frame frame = source.Next();
    const auto mark = [&](std::size_t offset, bool set) {
      frame.header[offset] = static_cast<std::uint8_t>(set ? 1u << channel : 0u);
    };
    mark(24, marks.alarm);
    mark(26, marks.videoLoss);
    mark(28, marks.deviceEvent);
    if (held != 0) {
      constexpr std::size_t kSecond = 8, kMicroseconds = 16;
      const auto taken = static_cast<std::uint32_t>(cms::WallSeconds() - held);
      for (std::size_t i = 0; i < sizeof taken; ++i) {
        frame.header[kSecond + i] = static_cast<std::uint8_t>(taken >> 8 * i);
      }
      frame.header[kMicroseconds] = 1;  // the first of them
    }
    cms::SealFrameHeader(std::span(frame.header).first<cms::kAudioHeaderRoom>());
    // Not as const as the interface of receiving has it.
    OnGetVideoFrame(frame.header.data(), static_cast<int>(frame.header.size()),
                    const_cast<std::uint8_t*>(frame.payload->data()),
                    static_cast<int>(frame.payload->size()), channel, frame.key ? 1 : 2);
  }
  std::int64_t held = 0;  // seconds that frames were on their way; 0: they do not tell
  void GiveAudio(unsigned channel = 0) {
    std::uint8_t block[160] = {};
    std::array<std::uint8_t, cms::kAudioHeaderRoom> header;
    cms::AudioFrameInfo info;
    info.payloadSize = sizeof block;
    info.hostSeconds = cms::WallSeconds();
    cms::BuildAudioFrameHeader(header, info);
    OnGetAudioFrame(header.data(), static_cast<int>(header.size()), block, sizeof block, channel);
  }
  void SetConnection(cms::ConnectionState state,
                     cms::ConnectionFault fault = cms::ConnectionFault::kNone) {
    SetFault(fault, "");
    SetState(state);
  }
};

}  // namespace test
