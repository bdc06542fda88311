#include "tools/support/time_text.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <optional>

#include "cms/recording/database_reader.h"
#include "tools/support/options.h"

namespace tools {
namespace {

constexpr int kSecondsOfHour = 3600;
constexpr int kLastOfDay = 86'399;

// "Z" is 0, "+01:30" is 5400; nothing for anything else.
std::optional<int> OffsetOf(const std::string& zone) {
  if (zone == "Z" || zone == "z") {
    return 0;
  }
  int hours = 0;
  int minutes = 0;
  int length = 0;
  if (zone.size() < 5 || (zone[0] != '+' && zone[0] != '-') ||
      (std::sscanf(zone.c_str() + 1, "%2d:%2d%n", &hours, &minutes, &length) != 2 &&
       std::sscanf(zone.c_str() + 1, "%2d%2d%n", &hours, &minutes, &length) != 2) ||
      zone.size() != static_cast<std::size_t>(length) + 1 || hours > 23 || minutes > 59) {
    return std::nullopt;
  }
  return (zone[0] == '-' ? -1 : 1) * (hours * kSecondsOfHour + minutes * 60);
}

// Whether the calendar has this moment: making a time of it changes nothing.
bool SameMoment(const std::tm& a, const std::tm& b) {
  return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
         a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

std::optional<std::int64_t> SecondsOf(const std::string& text, DayEdge edge) {
  std::tm parts{};
  int length = 0;
  char between = 'T';
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                  &length) != 3) {
    return std::nullopt;
  }
  std::string rest = text.substr(static_cast<std::size_t>(length));
  const bool dayAlone = rest.empty() || OffsetOf(rest).has_value();
  if (!dayAlone) {
    if (std::sscanf(rest.c_str(), "%c%2d:%2d%n", &between, &parts.tm_hour, &parts.tm_min,
                    &length) != 3 ||
        (between != 'T' && between != 't' && between != ' ')) {
      return std::nullopt;
    }
    rest = rest.substr(static_cast<std::size_t>(length));
    if (std::sscanf(rest.c_str(), ":%2d%n", &parts.tm_sec, &length) == 1) {
      rest = rest.substr(static_cast<std::size_t>(length));
    }
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  parts.tm_isdst = -1;
  const std::optional<int> offset = OffsetOf(rest);
  if (!rest.empty() && !offset) {
    return std::nullopt;
  }
  std::tm utc = parts;
  std::int64_t seconds = timegm(&utc);
  if (!SameMoment(utc, parts)) {
    return std::nullopt;
  }
  const bool end = dayAlone && edge == DayEdge::kLastSecond;
  if (offset) {
    return seconds - *offset + (end ? kLastOfDay : 0);
  }
  if (end) {  // which need not be 24 hours behind the first
    parts.tm_hour = 23;
    parts.tm_min = 59;
    parts.tm_sec = 59;
  }
  return std::mktime(&parts);
}

}  // namespace

std::int64_t ReadTime(const std::string& option, const std::string& text, DayEdge edge) {
  const auto seconds = SecondsOf(text, edge);
  if (!seconds) {
    throw UsageError(option,
                     "\"" + text + "\" is no time; write 2026-11-21T10:30:00 (local), " +
                         "2026-11-21T10:30:00Z (UTC), 2026-11-21T10:30:00+01:00 or 2026-11-21");
  }
  return *seconds;
}

std::string UtcTime(std::int64_t seconds) {
  return seconds == 0 ? "1970-01-01T00:00:00Z" : cms::TextOfRecordTime(seconds);
}

std::string LocalTime(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  std::array<char, 64> text{};
  if (localtime_r(&time, &parts) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &parts) == 0) {
    return UtcTime(seconds);
  }
  std::string written = text.data();
  return written.insert(written.size() - 2, ":");
}

}  // namespace tools
