#include "cms/streaming/internal/rtsp_frame_source.h"

#include <span>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_type.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/picture_size.h"

static_assert(RTPProcesserBase::kFrontRoom >= cms::kVideoHeaderRoom &&
              RTPProcesserBase::kFrontRoom >= cms::kAudioHeaderRoom);

namespace {

cms::AudioFormatDescriptor FormatOf(const _RTSPSUBSESSION_CONFIG& audio) {
  cms::AudioFormatDescriptor format;
  const CMSCodecID codec = audio.payloadType != kNoPayloadType
                               ? cms::CodecOfEncodingName(audio.encodingName)
                               : CMS_CODEC_NONE;
  switch (codec) {
    case CMS_CODEC_PCM_MULAW:
    case CMS_CODEC_PCM_ALAW:
      format.bitsPerSample = 8;
      break;
    case CMS_CODEC_PCM_S16BE:  // network byte order (RFC 3551, 4.5.11)
      format.bitsPerSample = 16;
      break;
    default:
      return format;
  }
  format.codecId = static_cast<std::uint32_t>(codec);
  format.sampleRate = audio.clockRate;
  format.channels = static_cast<std::uint16_t>(audio.channels);
  return format;
}

cms::PictureSize SizeOf(const _RTSPSUBSESSION_CONFIG& video) {
  const std::vector<std::uint8_t> sps = cms::DecodeParameterSets(video.parameterSets).sps;
  const auto size = sps.empty() ? std::nullopt : cms::FullH264Size(std::span(sps).subspan(1));
  return size.value_or(cms::PictureSize{});
}

}  // namespace

CMSRTSPClient::FrameSource::FrameSource(CMSRTSPClient& client, const stRTSPClientConfig& config)
    : client_(client),
      channel_(config.channel),
      stream_(static_cast<unsigned>(config.streamNumber)),
      clockOffset_(config.clockOffsetSeconds) {}

void CMSRTSPClient::FrameSource::TakeDescription(const MediaSession& description,
                                                 const _RTSPSUBSESSION_CONFIG& video,
                                                 const _RTSPSUBSESSION_CONFIG& audio) {
  otherFrameRate_ = description.IsFrameRateNot30();
  announcedFrameRate_ = description.FrameRate();
  described_ = SizeOf(video);
  sound_ = FormatOf(audio);
}

void CMSRTSPClient::FrameSource::NoteFrame(cms::FrameInfo& info,
                                           std::span<const std::uint8_t> payload) const {
  info.payloadSize = static_cast<std::uint32_t>(payload.size());
  info.hostSeconds = cms::WallSeconds();
  info.clockOffset = clockOffset_;
  info.streamNumber = stream_;
  info.announcedOtherRate = otherFrameRate_;
}

void CMSRTSPClient::FrameSource::OnFrame(RTPProcesserBase& depacketizer,
                                         std::span<std::uint8_t> frame) {
  auto length = static_cast<int>(frame.size());
  int frameType = cms::kUntoldFrame;
  depacketizer.GetFrameData(frame.data(), &length, &frameType);
  const auto channel = client_.Channel(channel_);
  cms::VideoFrameInfo info;
  NoteFrame(info, frame);
  info.frameRate =
      announcedFrameRate_ > 0 ? announcedFrameRate_ : client_.fpsReport_.GetRecentFps();
  info.frameType = frameType;
  info.videoType = channel != nullptr ? channel->GetVideoType() : CMS_VIDEO_UNKNOWN;
  info.sequence = ++client_.videoSequence_;
  std::uint8_t* const header = frame.data() - cms::kVideoHeaderRoom;
  cms::BuildVideoFrameHeader(std::span<std::uint8_t, cms::kVideoHeaderRoom>(header, frame.data()),
                             info);
  if (depacketizer.GotAMetadata() != 0) {
    NoteMetadata(depacketizer, header);
  }
  if (channel != nullptr) {
    channel->SetTime(info.hostSeconds + info.clockOffset);
    if (frameType == cms::kKeyFrame) {
      NotePictureSize(*channel, frame);
    }
  }
  client_.OnGetVideoFrame(header, cms::kVideoHeaderRoom, frame.data(), length, channel_, frameType);
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

void CMSRTSPClient::FrameSource::NotePictureSize(CMSChannelDataBase& channel,
                                                 std::span<const std::uint8_t> frame) const {
  const cms::PictureSize size =
      cms::AnnouncedSize(channel.GetVideoType(), frame).value_or(described_);
  if (size.width > 0) {
    channel.SetVideoWidthAndHeight(static_cast<unsigned>(size.width),
                                   static_cast<unsigned>(size.height));
  }
}

void CMSRTSPClient::FrameSource::OnSound(std::span<std::uint8_t> block) {
  cms::AudioFrameInfo info;
  NoteFrame(info, block);
  info.format = sound_;
  std::uint8_t* const header = block.data() - cms::kAudioHeaderRoom;
  cms::BuildAudioFrameHeader(std::span<std::uint8_t, cms::kAudioHeaderRoom>(header, block.data()),
                             info);
  client_.OnGetAudioFrame(header, cms::kAudioHeaderRoom, block.data(),
                          static_cast<int>(block.size()), channel_);
}
