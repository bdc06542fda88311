// The library's view of time: one place to read it, and one place for tests to turn it.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"

namespace cms {

// The clock that every part of the library reads. Its operations may be called from any thread.
class CMS_API Clock {
 public:
  virtual ~Clock() = default;
  virtual std::uint64_t TickMilliseconds() const = 0;  // monotonic, since an arbitrary start
  virtual std::int64_t WallSeconds() const = 0;        // seconds since 1970-01-01 UTC
  // The same to the microsecond; of a clock that does not tell it, to what it tells.
  virtual std::uint64_t TickMicroseconds() const { return TickMilliseconds() * 1000; }
  virtual std::int64_t WallMicroseconds() const { return WallSeconds() * 1'000'000; }
};

// The clock in force: the system's unless a test replaced it.
CMS_API const Clock& CurrentClock();

// Replaces the clock of the whole process; nullptr gives the system's back. The caller keeps
// ownership and calls this while no thread of the library runs.
CMS_API void ReplaceClock(const Clock* clock);

// Shorthands for the clock in force. TickCount wraps after 49.7 days like a 32-bit tick counter;
// compare differences, never values.
inline std::uint64_t TickMilliseconds() {
  return CurrentClock().TickMilliseconds();
}
inline std::uint32_t TickCount() {
  return static_cast<std::uint32_t>(TickMilliseconds());
}
inline std::int64_t WallSeconds() {
  return CurrentClock().WallSeconds();
}
inline std::uint64_t TickMicroseconds() {
  return CurrentClock().TickMicroseconds();
}
inline std::int64_t WallMicroseconds() {
  return CurrentClock().WallMicroseconds();
}

}  // namespace cms
