// The codecs: their numbers at the library's interface and in its records, and their names.
#pragma once

#include <string_view>

#include "cms/runtime/api.h"

// The numbers are the system's own and part of its interface and its records; they equal those of
// an old release of the codec library. Only the decoders map them to the installed one's.
enum CMSCodecID : int {
  CMS_CODEC_NONE = 0,
  CMS_CODEC_MJPEG = 8,
  CMS_CODEC_MPEG4 = 13,
  CMS_CODEC_H264 = 28,
  CMS_CODEC_PCM_S16LE = 0x10000,
  CMS_CODEC_PCM_S16BE = 0x10001,
  CMS_CODEC_PCM_U8 = 0x10004,
  CMS_CODEC_PCM_MULAW = 0x10006,
  CMS_CODEC_PCM_ALAW = 0x10007,
  CMS_CODEC_ADPCM_IMA = 0x11001,
  CMS_CODEC_ADPCM_MS = 0x11006,
};

// The codec of a video frame, told by its first bytes. The numbers are stored in frame headers.
enum CMSVideoType : int {
  CMS_VIDEO_UNKNOWN = 0,
  CMS_VIDEO_H264 = 1,   // 00 00 00 01
  CMS_VIDEO_MJPEG = 2,  // FF D8
  CMS_VIDEO_MPEG4 = 3,  // 00 00 01, also for H.264 with 3-byte start codes
};

// What CMSDecoder decodes.
enum DECODE_CODEC : int {
  DECODE_CODEC_MJPEG = 0,
  DECODE_CODEC_H264 = 1,
};

namespace cms {

// CMS_CODEC_NONE for a number that is no video type, CMS_VIDEO_UNKNOWN for a codec of no video.
CMS_API CMSCodecID CodecOfVideoType(int videoType);
CMS_API CMSVideoType VideoTypeOfCodec(int codecId);

// The name in session descriptions, in capital letters: "H264", "JPEG", "MP4V-ES", "PCMU", "PCMA"
// or "L16", which is CMS_CODEC_PCM_S16BE there and both byte orders' name. Empty and
// CMS_CODEC_NONE where there is none.
CMS_API std::string_view EncodingNameOf(int codecId);
CMS_API CMSCodecID CodecOfEncodingName(std::string_view name);

}  // namespace cms
