// FrameView: one frame on its way, and what is known about it.
#pragma once

#include <cstdint>
#include <span>

#include "cms/live/media/drv_header.h"
#include "cms/live/media/event_marks.h"
#include "cms/runtime/api.h"

namespace cms {

// A video frame or a block of sound behind the operations of the site client that take a header and
// a payload: made there once, its header read once, and handed on to recording as it is. The bytes
// are somebody else's and are valid during the call that hands the frame over.
//
// Times are microseconds; see FrameMoment for what they mean.
struct FrameView {
  std::span<const std::uint8_t> header;  // the whole area in front of the payload
  std::span<const std::uint8_t> payload;
  DrvHeader fields;  // the header, read; all zeros, which no header is, when the area is too short
  EventMarks marks;  // of `channel`
  unsigned channel = 0;
  bool key = false;
  bool audio = false;
  std::uint32_t seconds = 0;    // the header's, since 1970-01-01 UTC
  std::uint64_t arrivalUs = 0;  // of the tick counter (cms::TickMicroseconds); 0: not known
  std::int64_t timeUs = 0;      // of our clock, since 1970-01-01 UTC; 0: the header tells seconds
  std::int64_t cameraUs = 0;    // the camera's clock, since 1970-01-01 UTC; 0: not known
};

// The frame as described operations have it: sizes below 0 count as 0. Any thread.
CMS_API FrameView FrameOf(const void* header, int headerSize, const void* data, int size,
                          unsigned channel, std::uint64_t arrivalUs);

}  // namespace cms
