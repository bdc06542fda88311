#include "cms/live/media/codec_id.h"

#include <algorithm>
#include <iterator>

namespace cms {
namespace {

struct Codec {
  CMSCodecID id;
  CMSVideoType videoType;
  std::string_view encodingName;
};

// Of two codecs of one name the first is the one in session descriptions; of two names of one codec
// the first is the one that is told.
constexpr Codec kCodecs[] = {
    {CMS_CODEC_H264, CMS_VIDEO_H264, "H264"},
    {CMS_CODEC_H265, CMS_VIDEO_H265, "H265"},
    {CMS_CODEC_MJPEG, CMS_VIDEO_MJPEG, "JPEG"},
    {CMS_CODEC_MPEG4, CMS_VIDEO_MPEG4, "MP4V-ES"},
    {CMS_CODEC_PCM_MULAW, CMS_VIDEO_UNKNOWN, "PCMU"},
    {CMS_CODEC_PCM_ALAW, CMS_VIDEO_UNKNOWN, "PCMA"},
    {CMS_CODEC_PCM_S16BE, CMS_VIDEO_UNKNOWN, "L16"},
    {CMS_CODEC_PCM_S16LE, CMS_VIDEO_UNKNOWN, "L16"},
    {CMS_CODEC_AAC, CMS_VIDEO_UNKNOWN, "MPEG4-GENERIC"},
    {CMS_CODEC_AAC, CMS_VIDEO_UNKNOWN, "MP4A-LATM"},
    {CMS_CODEC_G726_16, CMS_VIDEO_UNKNOWN, "G726-16"},
    {CMS_CODEC_G726_24, CMS_VIDEO_UNKNOWN, "G726-24"},
    {CMS_CODEC_G726_32, CMS_VIDEO_UNKNOWN, "G726-32"},
    {CMS_CODEC_G726_40, CMS_VIDEO_UNKNOWN, "G726-40"},
    {CMS_CODEC_G726_AAL2_16, CMS_VIDEO_UNKNOWN, "AAL2-G726-16"},
    {CMS_CODEC_G726_AAL2_24, CMS_VIDEO_UNKNOWN, "AAL2-G726-24"},
    {CMS_CODEC_G726_AAL2_32, CMS_VIDEO_UNKNOWN, "AAL2-G726-32"},
    {CMS_CODEC_G726_AAL2_40, CMS_VIDEO_UNKNOWN, "AAL2-G726-40"},
};

template <typename Matches>
Codec FirstCodec(Matches matches) {
  const auto* const found = std::find_if(std::begin(kCodecs), std::end(kCodecs), matches);
  return found != std::end(kCodecs) ? *found : Codec{CMS_CODEC_NONE, CMS_VIDEO_UNKNOWN, {}};
}

}  // namespace

CMSCodecID CodecOfVideoType(int videoType) {
  return FirstCodec([&](const Codec& codec) {
           return videoType != CMS_VIDEO_UNKNOWN && codec.videoType == videoType;
         })
      .id;
}

CMSVideoType VideoTypeOfCodec(int codecId) {
  return FirstCodec([&](const Codec& codec) { return codec.id == codecId; }).videoType;
}

std::string_view EncodingNameOf(int codecId) {
  return FirstCodec([&](const Codec& codec) { return codec.id == codecId; }).encodingName;
}

CMSCodecID CodecOfEncodingName(std::string_view name) {
  return FirstCodec([&](const Codec& codec) { return codec.encodingName == name; }).id;
}

std::string_view CodecNameOf(int codecId) {
  return codecId == CMS_CODEC_AAC ? "AAC" : EncodingNameOf(codecId);
}

int G726BitsOf(int codecId) {
  const bool known = (codecId >= CMS_CODEC_G726_16 && codecId <= CMS_CODEC_G726_40) ||
                     (codecId >= CMS_CODEC_G726_AAL2_16 && codecId <= CMS_CODEC_G726_AAL2_40);
  return known ? codecId & 0xF : 0;
}

}  // namespace cms
