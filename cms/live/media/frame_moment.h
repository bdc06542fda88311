// FrameMoment: when a frame came, and when it was taken.
#pragma once

#include <cstdint>

namespace cms {

inline constexpr std::int64_t kMicro = 1'000'000;  // a second's

// Microseconds; 0: not known. Of a block of sound it is that of its first sample.
struct FrameMoment {
  std::uint64_t arrivalUs = 0;  // when it was complete: the tick counter (cms::TickMicroseconds)
  // When it was taken, by our clock: the arrival without what the network held it up. Pictures and
  // sound of a stream are on one scale. Since 1970-01-01 UTC.
  std::int64_t timeUs = 0;
  // When it was taken, by the camera's clock as its RTCP sender reports tell it; known from the
  // first report on. It follows a clock that is set. Since 1970-01-01 UTC.
  std::int64_t cameraUs = 0;
};

}  // namespace cms
