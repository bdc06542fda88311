// The one place where the system's codec numbers meet those of the installed codec library.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
}

#include "cms/live/media/codec_id.h"

namespace cms {

// AV_CODEC_ID_NONE for a number that is no codec's of ours, and for the devices' own blocks of
// ADPCM.
AVCodecID ToLibraryCodec(CMSCodecID codec);

// CMS_CODEC_NONE for every value that CMSDecoder does not decode.
CMSCodecID ToCodecID(DECODE_CODEC codec);

// The full-range JPEG variants become the plain formats of the same layout; others stay.
AVPixelFormat PlainFormat(int format);

}  // namespace cms
