// The codecs of clips by the numbers of the codec library.
#pragma once

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "tools/data/clip_writer.h"

namespace tools {

inline AVCodecID CodecOf(ClipVideo video) {
  switch (video) {
    case ClipVideo::kMjpeg:
      return AV_CODEC_ID_MJPEG;
    case ClipVideo::kMpeg4:
      return AV_CODEC_ID_MPEG4;
    default:
      return AV_CODEC_ID_H264;
  }
}

}  // namespace tools
