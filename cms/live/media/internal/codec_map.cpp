#include "cms/live/media/internal/codec_map.h"

namespace cms {

AVCodecID ToLibraryCodec(CMSCodecID codec) {
  switch (codec) {
    case CMS_CODEC_MJPEG:
      return AV_CODEC_ID_MJPEG;
    case CMS_CODEC_MPEG4:
      return AV_CODEC_ID_MPEG4;
    case CMS_CODEC_H264:
      return AV_CODEC_ID_H264;
    case CMS_CODEC_H265:
      return AV_CODEC_ID_HEVC;
    case CMS_CODEC_PCM_S16LE:
      return AV_CODEC_ID_PCM_S16LE;
    case CMS_CODEC_PCM_S16BE:
      return AV_CODEC_ID_PCM_S16BE;
    case CMS_CODEC_PCM_MULAW:
      return AV_CODEC_ID_PCM_MULAW;
    case CMS_CODEC_PCM_ALAW:
      return AV_CODEC_ID_PCM_ALAW;
    case CMS_CODEC_AAC:
      return AV_CODEC_ID_AAC;
    case CMS_CODEC_G726_16:
    case CMS_CODEC_G726_24:
    case CMS_CODEC_G726_32:
    case CMS_CODEC_G726_40:
      return AV_CODEC_ID_ADPCM_G726LE;
    case CMS_CODEC_G726_AAL2_16:
    case CMS_CODEC_G726_AAL2_24:
    case CMS_CODEC_G726_AAL2_32:
    case CMS_CODEC_G726_AAL2_40:
      return AV_CODEC_ID_ADPCM_G726;
    default:
      return AV_CODEC_ID_NONE;
  }
}

CMSCodecID ToCodecID(DECODE_CODEC codec) {
  switch (codec) {
    case DECODE_CODEC_MJPEG:
      return CMS_CODEC_MJPEG;
    case DECODE_CODEC_H264:
      return CMS_CODEC_H264;
    case DECODE_CODEC_H265:
      return CMS_CODEC_H265;
    case DECODE_CODEC_MPEG4:
      return CMS_CODEC_MPEG4;
  }
  return CMS_CODEC_NONE;
}

AVPixelFormat PlainFormat(int format) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P:
      return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
      return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
      return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
      return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P:
      return AV_PIX_FMT_YUV411P;
    default:
      return static_cast<AVPixelFormat>(format);
  }
}

}  // namespace cms
