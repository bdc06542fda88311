// Days as the clock on the wall has them: of 23, 24 or 25 hours.
#pragma once

#include <cstdint>
#include <string>

namespace cms {

// Seconds since 1970-01-01 UTC: [begin, end).
struct LocalDay {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::string text;  // "2026-11-21"; empty for a time that no calendar holds
};

// The day of a moment, or the one that lies so many days behind it (-1: the day before).
LocalDay LocalDayOf(std::int64_t time, int later = 0);

}  // namespace cms
