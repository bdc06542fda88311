// Direct access to the video codecs for client applications: raw planar pictures, MPEG-4 included.
//
// One handle serves one thread at a time. Order of calls: CMS_avcodec_open, CMS_FFMPEG_Decode for
// each frame (and CMS_av_free_frame for each picture), CMS_avcodec_close, CMS_av_free.
#pragma once

#include "cms/runtime/api.h"

namespace cms {

enum CMS_PICTURE_FORMAT : int {
  CMS_PICTURE_YUV420P = 0,
  CMS_PICTURE_YUV422P = 1,
  CMS_PICTURE_YUV444P = 2,
  CMS_PICTURE_YUV440P = 3,
  CMS_PICTURE_GRAY = 4,  // the first plane only
};

// A decoded picture of 8 bits a sample: planes Y, U, V. Valid until CMS_av_free_frame, also after
// its codec is closed.
struct CMSRawPicture {
  int width;
  int height;
  CMS_PICTURE_FORMAT format;
  int fullRange;  // 1: samples span 0..255 (JPEG); 0: 16..235
  const unsigned char* planes[3];
  int strides[3];  // bytes from one row to the next
};

}  // namespace cms

extern "C" {

// Opens the decoder of a codec identifier (8 MJPEG, 13 MPEG-4, 28 H.264). 0 on failure.
CMS_API void* CMS_avcodec_open(int codec);

// Decodes one frame; the data needs no padding (it is copied into a buffer kept with the handle).
// Returns 0 with *picture set, 1 on an error, 2 when the data gave no picture yet; *picture is null
// unless 0. `used` (may be null) receives the bytes taken.
CMS_API int CMS_FFMPEG_Decode(void* codec, const unsigned char* data, int length, int* used,
                              cms::CMSRawPicture** picture);

// Gives a picture back; null is allowed.
CMS_API void CMS_av_free_frame(cms::CMSRawPicture* picture);

// Frees the input buffer that CMS_FFMPEG_Decode keeps between calls; the next call makes a new one.
CMS_API void CMS_FFMPEG_Decode_Buffer_Free(void* codec);

// Closes the codec: 1, or 0 when it was not open. The handle stays valid, and refuses to decode.
CMS_API int CMS_avcodec_close(void* codec);

// Frees the handle, and closes the codec if that was not done. Null is allowed.
CMS_API void CMS_av_free(void* codec);

}  // extern "C"
