// How a frame of a running recording becomes bytes of the files.
#include <algorithm>
#include <array>

#include "cms/live/frame_header.h"
#include "cms/recording/drv_recorder.h"
#include "cms/recording/event_marks.h"
#include "cms/runtime/clock.h"

namespace FX {
namespace {

std::span<const std::uint8_t> BlockOf(const void* data, int size) {
  return {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(std::max(size, 0))};
}

}  // namespace

bool FX_DRVRecorder::RecordVideoFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel, bool markDeviceEvent) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel,
                     markDeviceEvent ? FrameUse::kMarked : FrameUse::kPlain);
}

bool FX_DRVRecorder::RecordAudioFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel, FrameUse::kPlain);
}

bool FX_DRVRecorder::RecordPreAlarmFrame(const void* header, int headerSize, const void* data,
                                         int size, unsigned channel) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel,
                     FrameUse::kBeforeEvent);
}

bool FX_DRVRecorder::RecordFrame(std::span<const std::uint8_t> area,
                                 std::span<const std::uint8_t> payload, unsigned channel,
                                 FrameUse use) {
  cms::ChannelSet::Check(channel);
  // Stopping clears the running bit before it closes the files under this lock: no frame opens them
  // again behind it.
  ScopeLock hold(lock_);
  const unsigned kinds = RunningKinds(channel);
  if (kinds == 0) {
    return false;
  }
  if (area.size() < cms::kDrvHeaderSize) {
    ++status_.refusedFrames;
    return false;
  }
  std::array<std::uint8_t, cms::kDrvHeaderSize> sealed;
  std::copy_n(area.begin(), sealed.size(), sealed.begin());
  if (use == FrameUse::kMarked) {
    cms::SetDeviceEventMark(sealed, channel);
  }
  cms::SealFrameHeader(sealed);
  const cms::DrvHeader header(sealed);
  // A reader steps from frame to frame by these numbers.
  if (!header.HasSync() || header.AreaLength() != area.size() ||
      header.PayloadLength() != payload.size()) {
    ++status_.refusedFrames;
    return false;
  }
  const std::array blocks{std::span<const std::uint8_t>(sealed), area.subspan(cms::kDrvHeaderSize),
                          payload};
  if (header.IsAudio()) {
    return RecordBlocks(blocks, cms::kDependent);
  }
  const cms::EventMarks marks = cms::ReadEventMarks(header, channel);
  DrvIdx record{};
  record.channel = channel;
  record.state = kinds;
  record.milliseconds = Milliseconds(header.Seconds());
  record.frame_type = header.FrameType();
  record.second_state =
      (marks.deviceEvent ? 1u : 0u) | (marks.alarm ? 2u : 0u) | (marks.videoLoss ? 4u : 0u);
  SetDrvIdx(record);
  if (!RecordBlocks(blocks, header.IsKeyFrame() ? cms::kBeginsFile : cms::kDependent)) {
    return false;
  }
  status_.AddVideo({cms::TickMilliseconds(), cms::WallSeconds()});
  if (header.IsKeyFrame() || !param_.indexKeyFramesOnly) {
    WriteDrvIdx();
  }
  if (use == FrameUse::kBeforeEvent) {
    CLFXDRVWriter::SetRecordTime(header.Seconds());
  } else {
    SetRecordTime(header.Seconds(), channel);
  }
  return true;
}

// Header times are whole seconds: within one, the time since its first frame, and never the same
// twice while the second has milliseconds left.
std::uint64_t FX_DRVRecorder::Milliseconds(std::uint32_t seconds) {
  const std::uint64_t now = cms::TickMilliseconds();
  if (seconds != second_) {
    second_ = seconds;
    secondTick_ = now;
    millisecond_ = 0;
  } else {
    millisecond_ = std::min<std::uint64_t>(std::max(millisecond_ + 1, now - secondTick_), 999);
  }
  return std::uint64_t{seconds} * 1000 + millisecond_;
}

}  // namespace FX
