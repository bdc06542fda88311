#include "cms/streaming/internal/rtsp_frame_source.h"

#include <span>
#include <string_view>
#include <vector>

#include "cms/live/media/frame_type.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/picture_size.h"

namespace {

cms::AudioFormatDescriptor FormatOf(const _RTSPSUBSESSION_CONFIG& audio) {
  cms::AudioFormatDescriptor format;
  const std::string_view encoding =
      audio.payloadType != kNoPayloadType ? audio.encodingName : std::string_view();
  if (encoding == "PCMU") {
    format.codecId = CMS_CODEC_PCM_MULAW;
    format.bitsPerSample = 8;
  } else if (encoding == "PCMA") {
    format.codecId = CMS_CODEC_PCM_ALAW;
    format.bitsPerSample = 8;
  } else if (encoding == "L16") {
    format.codecId = CMS_CODEC_PCM_S16BE;  // network byte order (RFC 3551, 4.5.11)
    format.bitsPerSample = 16;
  } else {
    return format;
  }
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

CMSRTSPClient::FrameSource::FrameSource(CMSRTSPClient& client, const stRTSPClientConfig& config,
                                        RTSPSubSession& video)
    : client_(client),
      video_(video),
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

void CMSRTSPClient::FrameSource::OnVideo(void* context, unsigned char* frameBuffer, int,
                                         unsigned char* payload, int length, int frameType) {
  static_cast<FrameSource*>(context)->HandVideo(frameBuffer, payload, length, frameType);
}

void CMSRTSPClient::FrameSource::OnAudio(void* context, unsigned char* frameBuffer, int,
                                         unsigned char* payload, int length, int) {
  static_cast<FrameSource*>(context)->HandAudio(frameBuffer, payload, length);
}

void CMSRTSPClient::FrameSource::NoteFrame(cms::FrameInfo& info, int length) const {
  info.payloadSize = static_cast<std::uint32_t>(length);
  info.hostSeconds = cms::WallSeconds();
  info.clockOffset = clockOffset_;
  info.streamNumber = stream_;
  info.announcedOtherRate = otherFrameRate_;
}

void CMSRTSPClient::FrameSource::HandVideo(unsigned char* header, unsigned char* payload,
                                           int length, int frameType) {
  const auto channel = client_.Channel(channel_);
  cms::VideoFrameInfo info;
  NoteFrame(info, length);
  info.frameRate =
      announcedFrameRate_ > 0 ? announcedFrameRate_ : client_.fpsReport_.GetRecentFps();
  info.frameType = frameType;
  info.videoType = channel != nullptr ? channel->GetVideoType() : 0;
  info.sequence = ++client_.videoSequence_;
  const std::span<std::uint8_t, cms::kVideoHeaderRoom> area(header, cms::kVideoHeaderRoom);
  cms::BuildVideoFrameHeader(area, info);

  RTPProcesserBase* const processer = video_.Processer();
  if (processer->GotAMetadata() != 0) {
    unsigned char metadata[RTPProcesserBase::kMaxMetadata];
    void* destination = metadata;
    unsigned int metadataLength = 0;
    processer->GetMetadata(&destination, &metadataLength);
    client_.ConvertMetadataToDRVHeader(metadata, metadataLength, header, cms::kVideoHeaderRoom);
    processer->ResetMetadada();
  }
  if (channel != nullptr) {
    channel->SetTime(info.hostSeconds + info.clockOffset);
    if (frameType == cms::kKeyFrame) {
      NotePictureSize(*channel, payload, length);
    }
  }
  client_.OnGetVideoFrame(header, cms::kVideoHeaderRoom, payload, length, channel_, frameType);
}

void CMSRTSPClient::FrameSource::NotePictureSize(CMSChannelDataBase& channel,
                                                 const unsigned char* payload, int length) const {
  const cms::PictureSize size =
      cms::AnnouncedSize(channel.GetVideoType(), {payload, static_cast<std::size_t>(length)})
          .value_or(described_);
  if (size.width > 0) {
    channel.SetVideoWidthAndHeight(static_cast<unsigned>(size.width),
                                   static_cast<unsigned>(size.height));
  }
}

void CMSRTSPClient::FrameSource::HandAudio(unsigned char* header, unsigned char* payload,
                                           int length) {
  cms::AudioFrameInfo info;
  NoteFrame(info, length);
  info.format = sound_;
  const std::span<std::uint8_t, cms::kAudioHeaderRoom> area(header, cms::kAudioHeaderRoom);
  cms::BuildAudioFrameHeader(area, info);
  client_.OnGetAudioFrame(header, cms::kAudioHeaderRoom, payload, length, channel_);
}
