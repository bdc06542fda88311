#include "cms/streaming/internal/sound_format.h"

#include <algorithm>
#include <string_view>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_moment.h"

namespace cms {
namespace {

constexpr int kG711Bits = 8;
constexpr int kL16Bits = 16;
constexpr std::uint32_t kMostChannels = 8;

// 0: not received.
int BitsPerSample(CMSCodecID codec) {
  switch (codec) {
    case CMS_CODEC_PCM_MULAW:
    case CMS_CODEC_PCM_ALAW:
      return kG711Bits;
    case CMS_CODEC_PCM_S16BE:  // network byte order (RFC 3551, 4.5.11)
    case CMS_CODEC_AAC:        // what becomes of it
      return kL16Bits;
    default:
      return G726BitsOf(codec);
  }
}

bool IsDescribed(CMSCodecID codec) {
  return codec == CMS_CODEC_PCM_MULAW || codec == CMS_CODEC_PCM_ALAW ||
         codec == CMS_CODEC_PCM_S16BE;
}

}  // namespace

SoundFormat SoundFormatOf(const _RTSPSUBSESSION_CONFIG& audio, bool asSpecified) {
  SoundFormat format;
  if (audio.encodingName[0] == '\0' && audio.payloadType == kNoPayloadType) {
    return format;  // there is no sound
  }
  const std::string name = audio.encodingName[0] != '\0'
                               ? audio.encodingName + ("/" + std::to_string(audio.clockRate))
                               : "payload type " + std::to_string(audio.payloadType) +
                                     ", which the description does not name,";
  const CMSCodecID codec = CodecOfEncodingName(audio.encodingName);
  const int bits = BitsPerSample(codec);
  if (bits == 0 || (asSpecified && !IsDescribed(codec)) || audio.channels == 0 ||
      audio.channels > kMostChannels) {
    format.problem = name + " is not understood (" +
                     (asSpecified ? "PCMU, PCMA and L16" : "PCMU, PCMA, L16, G.726 and AAC") +
                     " are)";
    return format;
  }
  AudioFormatDescriptor descriptor;
  descriptor.codecId = static_cast<std::uint32_t>(codec);
  descriptor.sampleRate = audio.clockRate;
  descriptor.channels = static_cast<std::uint16_t>(audio.channels);
  descriptor.bitsPerSample = static_cast<std::uint16_t>(bits);
  if (codec == CMS_CODEC_AAC) {
    std::string problem;
    const bool latm = std::string_view(audio.encodingName) == "MP4A-LATM";
    format.aac = (latm ? ReadLatmPayload : ReadAacPayload)(audio.formatParameters, audio.clockRate,
                                                           audio.channels, &problem);
    if (!format.aac) {
      format.problem = name + ": " + problem;
      return format;
    }
    descriptor.sampleRate = format.aac->format.SampleRate();
    descriptor.channels = static_cast<std::uint16_t>(format.aac->format.channels);
  }
  format.descriptor = descriptor;
  return format;
}

std::int64_t SoundFormat::LengthUs(std::span<const std::uint8_t> block) const {
  const std::int64_t rate = std::max<std::int64_t>(descriptor.sampleRate, 1);
  if (aac) {
    return kAacUnitSamples * kMicro / rate;
  }
  const std::int64_t frameBits =
      std::max<std::int64_t>(std::int64_t{descriptor.bitsPerSample} * descriptor.channels, 1);
  return static_cast<std::int64_t>(block.size()) * 8 / frameBits * kMicro / rate;
}

}  // namespace cms
