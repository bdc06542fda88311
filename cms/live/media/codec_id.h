// Codec identifiers at the library's interface.
#pragma once

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

// What CMSDecoder decodes.
enum DECODE_CODEC : int {
  DECODE_CODEC_MJPEG = 0,
  DECODE_CODEC_H264 = 1,
};
