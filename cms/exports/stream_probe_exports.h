// The stream probes as plain exported functions. They are pure and may be called from any thread.
// Functions that take a length never read past it. Those without one say how many readable bytes
// the caller owes; for foreign bytes of known length the functions of cms/streaming/stream_probes.h
// are the safer choice. Output pointers may be null.
#pragma once

#include <cstdint>

#include "cms/streaming/stream_probes.h"

extern "C" {

// Video type of a frame, a CMSVideoType. Reads up to 4 bytes.
CMS_API int CMSGetVideoType(const void* data);

// Offset just behind the first VOP (00 00 01 B6) or video-object-layer (00 00 01 20 to 2F) start
// code, -1 when there is none. Fewer than 4 bytes always give length + 4.
CMS_API int CMSGetMPEG4VopDataPos(const void* data, unsigned int length);
CMS_API int CMSGetMPEG4VOLDataPos(const void* data, unsigned int length);

// 1 I-VOP, 2 P-VOP, 3 B-VOP, 4 S-VOP; `pos` is from CMSGetMPEG4VopDataPos and lies in the data.
CMS_API int CMSGetMPEG4FrameType(const void* data, int pos);

// Picture size of the layer at `pos` (from CMSGetMPEG4VOLDataPos); a non-zero switch halves an
// interlaced layer's. 1 on success, 0 for a layer that is not rectangular (the outputs are
// untouched). The caller owes a complete layer header, or 32 bytes.
CMS_API int CMSGetMPEG4WidthAndHeight(const void* data, int pos, int* width, int* height,
                                      int halveInterlaced);

// Offset just behind the NAL header of the first SPS or SEI behind a 4-byte start code, -1 when
// there is none. Fewer than 5 bytes always give length + 5.
CMS_API int CMSGetH264SPSDataPos(const void* data, unsigned int length);
CMS_API int CMSGetH264SEIData(const void* data, unsigned int length);

// Type and size of an SEI message; the result is the offset of its payload. The caller owes a
// complete message head: data in which FF bytes end.
CMS_API int CMSGetH264SEIMessageData(const void* message, unsigned int* payloadType,
                                     unsigned int* payloadSize);

// Picture size of an SPS from the byte behind its NAL header; baseline/main layout only, see
// cms::H264Size. 1 on success, else 0 (the outputs are untouched). The caller owes a complete SPS
// (no byte behind the picture height is read), or 4096 bytes.
CMS_API int CMSGetH264WidthAndHeight(const void* sps, int* width, int* height);

// Picture size of a JPEG's first SOF0 header, 0 x 0 when there is none.
CMS_API void CMSGetMJPEGWidthAndHeight(const void* data, int length, int* width, int* height);

// Seconds since 1970 of a UTC calendar time plus one day (see cms::SystemTimeToSeconds), stored in
// `seconds` and returned.
CMS_API std::int64_t SystemTimeTotime_t(const cms::CMSSystemTime* time, std::int64_t* seconds);
}
