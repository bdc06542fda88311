#include "cms/streaming/internal/rtsp_frame_source.h"

#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_type.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/picture_size.h"
#include "cms/streaming/internal/rtsp_client_state.h"
#include "cms/streaming/internal/unit_buffer.h"

static_assert(cms::UnitBuffer::kFrontRoom >= cms::kVideoHeaderRoom &&
              RTPProcesserBase::kFrontRoom >= cms::kVideoHeaderRoom &&
              RTPProcesserBase::kFrontRoom >= cms::kAudioHeaderRoom);

namespace {

cms::PictureSize SizeOf(const _RTSPSUBSESSION_CONFIG& video) {
  const std::vector<std::uint8_t> sps = cms::DecodeParameterSets(video.parameterSets).sps;
  const auto size = sps.empty() ? std::nullopt : cms::FullH264Size(std::span(sps).subspan(1));
  return size.value_or(cms::PictureSize{});
}

}  // namespace

CMSRTSPClient::FrameSource::FrameSource(CMSRTSPClient& client,
                                        const cms::stRTSPClientConfig& config)
    : client_(client),
      channel_(config.channel),
      stream_(static_cast<unsigned>(config.streamNumber)),
      clockOffset_(config.clockOffsetSeconds),
      asSpecified_(!config.todaysCameras) {}

void CMSRTSPClient::FrameSource::TakeDescription(const MediaSession& description,
                                                 const _RTSPSUBSESSION_CONFIG& video,
                                                 const _RTSPSUBSESSION_CONFIG& audio) {
  otherFrameRate_ = description.IsFrameRateNot30();
  announcedFrameRate_ = description.FrameRate();
  described_ = SizeOf(video);
  sound_ = cms::SoundFormatOf(audio, asSpecified_);
  if (audio.payloadType == cms::kNoPayloadType) {
    sound_.descriptor = {};
  }
  clock_.SetRate(cms::FrameClock::Stream::kPictures, video.clockRate);
  clock_.SetRate(cms::FrameClock::Stream::kSound, audio.clockRate);
}

void CMSRTSPClient::FrameSource::OnReport(bool video, const cms::SenderReport& report) {
  clock_.TakeReport(video ? cms::FrameClock::Stream::kPictures : cms::FrameClock::Stream::kSound,
                    report, cms::WallSeconds());
}

// The time of a frame that is complete now: to the client, and into what its header tells.
void CMSRTSPClient::FrameSource::NoteTime(cms::FrameClock::Stream stream, std::uint32_t timestamp,
                                          std::int64_t lengthUs, cms::FrameInfo& info) {
  const std::int64_t now = cms::WallMicroseconds();
  cms::FrameMoment moment =
      clock_.MomentOf(stream, {timestamp, cms::TickMicroseconds(), now, lengthUs});
  if (asSpecified_) {
    moment.timeUs = 0;
    info.hostSeconds = now / cms::kMicro;
  } else {
    info.hostSeconds = moment.timeUs / cms::kMicro;
    info.microseconds = static_cast<std::uint32_t>(moment.timeUs % cms::kMicro);
  }
  client_.NoteMoment(moment);
}

void CMSRTSPClient::FrameSource::NoteFrame(cms::FrameInfo& info,
                                           std::span<const std::uint8_t> payload) const {
  info.payloadSize = static_cast<std::uint32_t>(payload.size());
  info.clockOffset = clockOffset_;
  info.streamNumber = stream_;
  info.announcedOtherRate = otherFrameRate_;
}

// In the room in front of the frame.
void CMSRTSPClient::FrameSource::WriteHeader(std::span<std::uint8_t> frame, int frameType,
                                             std::uint32_t timestamp, CMSChannelDataBase* channel) {
  cms::VideoFrameInfo info;
  NoteTime(cms::FrameClock::Stream::kPictures, timestamp, 0, info);
  NoteFrame(info, frame);
  info.frameRate =
      announcedFrameRate_ > 0 ? announcedFrameRate_ : client_.FpsReport().GetRecentFps();
  info.frameType = frameType;
  info.videoType = channel != nullptr ? channel->GetVideoType() : cms::CMS_VIDEO_UNKNOWN;
  info.sequence = client_.shown_->videoSequence.fetch_add(1, std::memory_order_relaxed) + 1;
  std::uint8_t* const header = frame.data() - cms::kVideoHeaderRoom;
  cms::BuildVideoFrameHeader(std::span<std::uint8_t, cms::kVideoHeaderRoom>(header, frame.data()),
                             info);
  if (channel != nullptr) {
    channel->SetTime(info.hostSeconds + info.clockOffset);
  }
}

void CMSRTSPClient::FrameSource::OnFrame(RTPProcesserBase& depacketizer,
                                         std::span<std::uint8_t> frame) {
  auto length = static_cast<int>(frame.size());
  int frameType = cms::kUntoldFrame;
  depacketizer.GetFrameData(frame.data(), &length, &frameType);
  const auto channel = client_.Channel(channel_);
  WriteHeader(frame, frameType, depacketizer.LastTimestamp(), channel.get());
  std::uint8_t* const header = frame.data() - cms::kVideoHeaderRoom;
  if (depacketizer.GotAMetadata() != 0) {
    NoteMetadata(depacketizer, header);
  }
  if (channel != nullptr && frameType == cms::kKeyFrame) {
    NotePictureSize(channel.get(),
                    cms::AnnouncedSize(channel->GetVideoType(), frame).value_or(described_));
  }
  client_.OnGetVideoFrame(header, cms::kVideoHeaderRoom, frame.data(), length, channel_, frameType);
}

// A stream that shows no key picture for so long may have none: what comes is handed on.
bool CMSRTSPClient::FrameSource::IsKeyless() {
  constexpr std::uint64_t kKeylessMs = 10'000;
  const std::uint64_t now = cms::TickMilliseconds();
  undecodableSince_ = undecodableSince_ != 0 ? undecodableSince_ : now;
  return now - undecodableSince_ >= kKeylessMs;
}

void CMSRTSPClient::FrameSource::OnAccessUnit(const cms::AccessUnit& unit) {
  if (!unit.decodable && !IsKeyless()) {
    return;
  }
  undecodableSince_ = unit.decodable ? 0 : undecodableSince_;
  const int frameType = unit.key ? cms::kKeyFrame : cms::kOtherFrame;
  const auto channel = client_.Channel(channel_);
  WriteHeader(unit.data, frameType, unit.timestamp, channel.get());
  std::uint8_t* const header = unit.data.data() - cms::kVideoHeaderRoom;
  if (!unit.metadata.empty()) {
    // A copy: the frame is not the client application's to change.
    std::array<std::uint8_t, cms::AccessUnit::kMostMetadata> metadata;
    std::copy(unit.metadata.begin(), unit.metadata.end(), metadata.begin());
    client_.ConvertMetadataToDRVHeader(metadata.data(), static_cast<unsigned>(unit.metadata.size()),
                                       header, cms::kVideoHeaderRoom);
  }
  size_ = unit.newSize.value_or(size_);
  if (unit.key) {
    NotePictureSize(channel.get(), size_);
  }
  client_.OnGetVideoFrame(header, cms::kVideoHeaderRoom, unit.data.data(),
                          static_cast<int>(unit.data.size()), channel_, frameType);
}

void CMSRTSPClient::FrameSource::NoteMetadata(RTPProcesserBase& depacketizer,
                                              std::uint8_t* header) const {
  unsigned char metadata[RTPProcesserBase::kMaxMetadata];
  void* destination = metadata;
  unsigned int length = 0;
  depacketizer.GetMetadata(&destination, &length);
  client_.ConvertMetadataToDRVHeader(metadata, length, header, cms::kVideoHeaderRoom);
  depacketizer.ResetMetadada();
}

void CMSRTSPClient::FrameSource::NotePictureSize(CMSChannelDataBase* channel,
                                                 cms::PictureSize size) {
  if (channel != nullptr && size.width > 0) {
    channel->SetVideoWidthAndHeight(static_cast<unsigned>(size.width),
                                    static_cast<unsigned>(size.height));
  }
}

void CMSRTSPClient::FrameSource::OnSound(std::span<std::uint8_t> block, std::uint32_t timestamp) {
  cms::AudioFrameInfo info;
  NoteTime(cms::FrameClock::Stream::kSound, timestamp, sound_.LengthUs(block), info);
  NoteFrame(info, block);
  info.format = sound_.descriptor;
  std::uint8_t* const header = block.data() - cms::kAudioHeaderRoom;
  cms::BuildAudioFrameHeader(std::span<std::uint8_t, cms::kAudioHeaderRoom>(header, block.data()),
                             info);
  client_.OnGetAudioFrame(header, cms::kAudioHeaderRoom, block.data(),
                          static_cast<int>(block.size()), channel_);
}
