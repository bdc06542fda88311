#include "tools/service/timetable.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <utility>

namespace tools {
namespace {

constexpr std::int64_t kDaySeconds = 86'400;
constexpr int kDayMinutes = 24 * 60;
constexpr std::array<std::string_view, 7> kWeekdays = {"sun", "mon", "tue", "wed",
                                                       "thu", "fri", "sat"};

// A local day as a count of days since 1970-01-01.
using LocalDay = std::int64_t;

LocalDay DayOf(const TimeZone& zone, std::int64_t moment) {
  const std::int64_t local = moment + zone.OffsetAt(moment);
  return local / kDaySeconds - (local % kDaySeconds < 0 ? 1 : 0);
}

enum class OfTwo { kFirst, kLast };  // of the moments at which the clock shows the same

// The moment at which the clock of that day shows these minutes since midnight.
std::int64_t MomentOf(const TimeZone& zone, LocalDay day, int minutes, OfTwo which) {
  const std::int64_t shown = day * kDaySeconds + std::int64_t{minutes} * 60;
  const std::int64_t before = zone.OffsetAt(shown - kDaySeconds);
  const std::int64_t after = zone.OffsetAt(shown + kDaySeconds);
  const bool comesBefore = zone.OffsetAt(shown - before) == before;
  const bool comesAfter = zone.OffsetAt(shown - after) == after;
  if (comesBefore && comesAfter) {
    return which == OfTwo::kFirst ? shown - std::max(before, after)
                                  : shown - std::min(before, after);
  }
  if (comesBefore || comesAfter) {
    return shown - (comesBefore ? before : after);
  }
  std::int64_t low = shown - std::max(before, after);  // the old time still holds
  std::int64_t high = shown - std::min(before, after);
  while (high - low > 1) {
    const std::int64_t middle = low + (high - low) / 2;
    (zone.OffsetAt(middle) == before ? low : high) = middle;
  }
  return high;
}

// 1970-01-01 was a Thursday.
unsigned WeekdayOf(LocalDay day) {
  constexpr LocalDay kThursday = 4;
  return static_cast<unsigned>(((day + kThursday) % 7 + 7) % 7);
}

bool IsHoliday(LocalDay day, const std::vector<Holiday>& holidays) {
  const std::time_t midnight = day * kDaySeconds;
  std::tm date{};
  gmtime_r(&midnight, &date);
  return std::any_of(holidays.begin(), holidays.end(), [&](const Holiday& each) {
    return each.day == date.tm_mday && each.month == date.tm_mon + 1 &&
           (each.year == 0 || each.year == date.tm_year + 1900);
  });
}

// The bits of the spans that begin on that day.
DaySet KindOf(LocalDay day, const std::vector<Holiday>& holidays) {
  return static_cast<DaySet>(1u << (IsHoliday(day, holidays) ? kHolidayBit : WeekdayOf(day)));
}

std::int64_t BeginOf(const TimeZone& zone, const PlanSpan& span, LocalDay day) {
  return MomentOf(zone, day, span.from, OfTwo::kFirst);
}

std::int64_t EndOf(const TimeZone& zone, const PlanSpan& span, LocalDay day) {
  // Midnight that comes twice belongs to the day that it begins.
  const OfTwo which = span.to % kDayMinutes == 0 ? OfTwo::kFirst : OfTwo::kLast;
  return MomentOf(zone, day, span.to > span.from ? span.to : span.to + kDayMinutes, which);
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::optional<unsigned> ReadWeekday(std::string_view text) {
  const auto found = std::find(kWeekdays.begin(), kWeekdays.end(), text);
  return found == kWeekdays.end() ? std::nullopt
                                  : std::optional(static_cast<unsigned>(found - kWeekdays.begin()));
}

std::optional<DaySet> ReadDayRange(std::string_view text) {
  if (text == "daily") {
    return kEveryDay;
  }
  if (text == "holidays") {
    return static_cast<DaySet>(1u << kHolidayBit);
  }
  const std::size_t dash = text.find('-');
  const auto first = ReadWeekday(Trimmed(text.substr(0, dash)));
  const auto last =
      dash == std::string_view::npos ? first : ReadWeekday(Trimmed(text.substr(dash + 1)));
  if (!first || !last) {
    return std::nullopt;
  }
  DaySet days = 0;
  for (unsigned day = *first;; day = (day + 1) % 7) {
    days = static_cast<DaySet>(days | 1u << day);
    if (day == *last) {
      return days;
    }
  }
}

// Two digits, or as many as asked for.
std::optional<int> ReadDigits(std::string_view text, std::size_t count) {
  int number = 0;
  if (text.size() != count ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace

std::optional<DaySet> ReadDays(std::string_view text) {
  DaySet days = 0;
  for (std::size_t at = 0; at != std::string_view::npos;) {
    const std::size_t comma = text.find(',', at);
    const auto range = ReadDayRange(Trimmed(text.substr(at, comma - at)));
    if (!range) {
      return std::nullopt;
    }
    days = static_cast<DaySet>(days | *range);
    at = comma == std::string_view::npos ? comma : comma + 1;
  }
  return days;
}

std::optional<int> ReadTimeOfDay(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto hours = ReadDigits(text.substr(0, colon), 2);
  const auto minutes = ReadDigits(text.substr(colon + 1), 2);
  if (!hours || !minutes || *minutes >= 60 || *hours * 60 + *minutes > kDayMinutes) {
    return std::nullopt;
  }
  return *hours * 60 + *minutes;
}

std::optional<Holiday> ReadHoliday(std::string_view text) {
  constexpr std::array<int, 12> kLongestMonths = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  constexpr std::size_t kYearAndDash = 5;
  Holiday holiday;
  if (text.size() == kYearAndDash + 5) {
    const auto year = ReadDigits(text.substr(0, 4), 4);
    if (!year || *year == 0 || text[4] != '-') {
      return std::nullopt;
    }
    holiday.year = *year;
    text.remove_prefix(kYearAndDash);
  }
  if (text.size() != 5 || text[2] != '-') {
    return std::nullopt;
  }
  const auto month = ReadDigits(text.substr(0, 2), 2);
  const auto day = ReadDigits(text.substr(3), 2);
  if (!month || !day || *month < 1 || *month > 12 || *day < 1 ||
      *day > kLongestMonths[static_cast<std::size_t>(*month - 1)]) {
    return std::nullopt;
  }
  holiday.month = *month;
  holiday.day = *day;
  return holiday;
}

Timetable::Timetable(PlanMode otherwise, std::vector<PlanSpan> spans, std::vector<Holiday> holidays)
    : otherwise_(otherwise), spans_(std::move(spans)), holidays_(std::move(holidays)) {}

Timetable Timetable::In(TimeZone zone) const {
  Timetable there = *this;
  there.zone_ = std::move(zone);
  return there;
}

PlanMode Timetable::At(std::int64_t moment) const {
  const LocalDay today = DayOf(zone_, moment);
  for (const PlanSpan& span : spans_) {
    for (const LocalDay day : {today - 1, today}) {
      if ((span.days & KindOf(day, holidays_)) != 0 && moment >= BeginOf(zone_, span, day) &&
          moment < EndOf(zone_, span, day)) {
        return span.mode;
      }
    }
  }
  return otherwise_;
}

std::int64_t Timetable::NextChange(std::int64_t moment) const {
  constexpr LocalDay kFarthest = 366;
  const PlanMode now = At(moment);
  const LocalDay today = DayOf(zone_, moment);
  std::vector<std::int64_t> moments;  // what is still to come of the days so far
  for (LocalDay day = today - 1; !spans_.empty() && day <= today + kFarthest; ++day) {
    for (const PlanSpan& span : spans_) {
      if ((span.days & KindOf(day, holidays_)) != 0) {
        moments.push_back(BeginOf(zone_, span, day));
        moments.push_back(EndOf(zone_, span, day));
      }
    }
    std::sort(moments.begin(), moments.end());
    const auto tomorrow = std::lower_bound(moments.begin(), moments.end(),
                                           MomentOf(zone_, day + 1, 0, OfTwo::kFirst));
    const auto change = std::find_if(moments.begin(), tomorrow, [&](std::int64_t each) {
      return each > moment && At(each) != now;
    });
    if (change != tomorrow) {
      return *change;
    }
    moments.erase(moments.begin(), tomorrow);
  }
  return kNever;
}

}  // namespace tools
