// The codecs: their numbers at the library's interface and in its records, and their names.
#pragma once

#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// The numbers are the system's own and part of its interface and its records; they equal those of
// an old release of the codec library. Only the decoders map them to the installed one's.
enum CMSCodecID : int {
  CMS_CODEC_NONE = 0,
  CMS_CODEC_MJPEG = 8,
  CMS_CODEC_MPEG4 = 13,
  CMS_CODEC_H264 = 28,
  CMS_CODEC_H265 = 174,
  CMS_CODEC_PCM_S16LE = 0x10000,
  CMS_CODEC_PCM_S16BE = 0x10001,
  CMS_CODEC_PCM_U8 = 0x10004,
  CMS_CODEC_PCM_MULAW = 0x10006,
  CMS_CODEC_PCM_ALAW = 0x10007,
  CMS_CODEC_ADPCM_IMA = 0x11001,
  CMS_CODEC_ADPCM_MS = 0x11006,
  // G.726 by its kbit/s at 8 kHz, the first code in the low bits (RFC 3551, 4.5.4), and the same
  // with the first code in the high bits. The last digit is the bits of a sample.
  CMS_CODEC_G726_16 = 0x11202,
  CMS_CODEC_G726_24 = 0x11203,
  CMS_CODEC_G726_32 = 0x11204,
  CMS_CODEC_G726_40 = 0x11205,
  CMS_CODEC_G726_AAL2_16 = 0x11212,
  CMS_CODEC_G726_AAL2_24 = 0x11213,
  CMS_CODEC_G726_AAL2_32 = 0x11214,
  CMS_CODEC_G726_AAL2_40 = 0x11215,
  CMS_CODEC_AAC = 0x15002,  // each block is an access unit behind an ADTS header
};

// The codec of a video frame. Frame headers tell it; the first bytes do for all but H.265, which
// begins as H.264 does (see cms::VideoTypeOfKeyFrame).
enum CMSVideoType : int {
  CMS_VIDEO_UNKNOWN = 0,
  CMS_VIDEO_H264 = 1,   // 00 00 00 01
  CMS_VIDEO_MJPEG = 2,  // FF D8
  CMS_VIDEO_MPEG4 = 3,  // 00 00 01, also for H.264 with 3-byte start codes
  CMS_VIDEO_H265 = 4,
};

}  // namespace cms

// What CMSDecoder decodes. The numbers between are no codec's, as they have always been.
enum DECODE_CODEC : int {
  DECODE_CODEC_MJPEG = 0,
  DECODE_CODEC_H264 = 1,
  DECODE_CODEC_H265 = 4,
  DECODE_CODEC_MPEG4 = 5,
};

namespace cms {

// CMS_CODEC_NONE for a number that is no video type, CMS_VIDEO_UNKNOWN for a codec of no video.
CMS_API CMSCodecID CodecOfVideoType(int videoType);
CMS_API CMSVideoType VideoTypeOfCodec(int codecId);

// The name in session descriptions, in capital letters: "H264", "H265", "JPEG", "MP4V-ES", "PCMU",
// "PCMA", "G726-32", "AAL2-G726-32" and the like, "MPEG4-GENERIC" for AAC, or "L16", which is
// CMS_CODEC_PCM_S16BE there and both byte orders' name. Empty and CMS_CODEC_NONE where there is
// none.
CMS_API std::string_view EncodingNameOf(int codecId);
CMS_API CMSCodecID CodecOfEncodingName(std::string_view name);

// The name for people: that in session descriptions, but "AAC". Empty where there is none.
CMS_API std::string_view CodecNameOf(int codecId);

// Bits of a sample, 2 to 5, of one of G.726's numbers; 0 of any other.
CMS_API int G726BitsOf(int codecId);

}  // namespace cms
