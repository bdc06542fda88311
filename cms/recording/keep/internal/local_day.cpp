#include "cms/recording/keep/internal/local_day.h"

#include <ctime>

namespace cms {
namespace {

// mktime puts days beyond the month into the next one.
std::int64_t BeginOf(std::tm day, int later) {
  day.tm_mday += later;
  day.tm_hour = day.tm_min = day.tm_sec = 0;
  day.tm_isdst = -1;
  return std::mktime(&day);
}

}  // namespace

LocalDay LocalDayOf(std::int64_t time, int later) {
  const std::time_t moment = time;
  std::tm parts{};
  if (localtime_r(&moment, &parts) == nullptr) {
    return {time, time, ""};
  }
  LocalDay day;
  day.begin = BeginOf(parts, later);
  day.end = BeginOf(parts, later + 1);
  char text[16];
  const std::time_t begin = day.begin;
  if (localtime_r(&begin, &parts) != nullptr &&
      std::strftime(text, sizeof text, "%Y-%m-%d", &parts) > 0) {
    day.text = text;
  }
  return day;
}

}  // namespace cms
