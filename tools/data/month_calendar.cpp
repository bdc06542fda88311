#include "tools/data/month_calendar.h"

#include <cstdio>
#include <ctime>

namespace tools {
namespace {

constexpr int kSecondsOfDay = 86'400;

std::tm FirstOf(int year, int month) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = 1;
  return parts;
}

}  // namespace

std::int64_t MonthBegin(int year, int month) {
  std::tm parts = FirstOf(year, month);
  return timegm(&parts);
}

std::string MonthCalendar(int year, int month, const std::array<int, 32>& marked) {
  std::tm first = FirstOf(year, month);
  const std::int64_t begin = timegm(&first);  // sets the day of the week
  const auto days = static_cast<int>((MonthBegin(year, month + 1) - begin) / kSecondsOfDay);
  char title[64];
  std::snprintf(title, sizeof(title), "%04d-%02d, days in UTC", year, month);
  std::string text = std::string(title) + "\n Mo  Tu  We  Th  Fr  Sa  Su\n";
  const int blank = (first.tm_wday + 6) % 7;
  text.append(static_cast<std::size_t>(4 * blank), ' ');
  for (int day = 1; day <= days; ++day) {
    char cell[16];
    std::snprintf(cell, sizeof(cell),
                  marked[static_cast<std::size_t>(day)] != 0 ? "[%2d]" : " %2d ", day);
    text += cell;
    text += (blank + day) % 7 == 0 && day != days ? "\n" : "";
  }
  return text + "\n";
}

}  // namespace tools
