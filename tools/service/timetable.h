// A plan: what is recorded when, by the clock on the wall.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/service/time_zone.h"

namespace tools {

enum class PlanMode { kNever, kEvents, kAlways };

// Sets of kinds of days.
using DaySet = std::uint8_t;
inline constexpr unsigned kHolidayBit = 7;  // bits 0 to 6: Sunday to Saturday
inline constexpr DaySet kEveryDay = 0xFF;

// "mon", "mon-fri", "sat, sun", "daily", "holidays", several with commas between them. A daily span
// holds on holidays too. Nothing for anything else.
std::optional<DaySet> ReadDays(std::string_view text);
// Minutes since midnight of "08:00"; up to "24:00".
std::optional<int> ReadTimeOfDay(std::string_view text);

// A day on which the spans of its weekday do not hold.
struct Holiday {
  int year = 0;  // 0: every year
  int month = 1;
  int day = 1;
  bool operator==(const Holiday&) const = default;
};
std::optional<Holiday> ReadHoliday(std::string_view text);  // "2026-12-24" or "12-25"

// Begins on each of the days at `from` and ends at `to`, on the next day unless that is later.
// Times are minutes since midnight, as the clock shows them.
struct PlanSpan {
  DaySet days = kEveryDay;
  int from = 0;
  int to = 24 * 60;
  PlanMode mode = PlanMode::kAlways;
  bool operator==(const PlanSpan&) const = default;
};

// By the clock of a time zone, that of the process unless In says another. Where the clock is set
// back, a time that comes twice begins with its first coming and ends with its last; where it is
// set forward, a time that does not come is the moment of the change. So no span loses a minute
// that the clock shows.
//
// Moments are seconds since 1970-01-01 UTC. Any thread.
class Timetable {
 public:
  // Of spans that overlap the earlier one in the list holds; between them `otherwise`.
  Timetable(PlanMode otherwise, std::vector<PlanSpan> spans = {},
            std::vector<Holiday> holidays = {});
  Timetable In(TimeZone zone) const;  // the same by the clock there

  PlanMode At(std::int64_t moment) const;

  static constexpr std::int64_t kNever = INT64_MAX;
  // The first moment behind this one at which At gives something else; kNever when there is none
  // within a year.
  std::int64_t NextChange(std::int64_t moment) const;

  bool operator==(const Timetable&) const = default;

 private:
  PlanMode otherwise_;
  std::vector<PlanSpan> spans_;
  std::vector<Holiday> holidays_;
  TimeZone zone_;
};

}  // namespace tools
