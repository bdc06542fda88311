// Plans by the clock on the wall, over a year of a zone whose clock is set forward and back.
#include "tools/service/timetable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

using tools::PlanMode;
using tools::PlanSpan;
using tools::Timetable;

class ProcessZone {
 public:
  explicit ProcessZone(const char* name) {
    setenv("TZ", name, 1);
    tzset();
  }
  ~ProcessZone() {
    unsetenv("TZ");
    tzset();
  }
  ProcessZone(const ProcessZone&) = delete;
  ProcessZone& operator=(const ProcessZone&) = delete;
};

// Germany's rules, told without the zone's database.
constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
// Where the clock goes from 24:00 to 01:00, and from 24:00 back to 23:00.
constexpr char kCairo[] = "EET-2EEST,M4.5.5/0,M10.5.4/24";

std::int64_t MomentOf(const std::string& text) {
  std::tm time{};
  EXPECT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &time), nullptr) << text;
  return timegm(&time);
}

std::string UtcText(std::int64_t moment) {
  const std::time_t time = moment;
  char text[32];
  std::tm utc{};
  gmtime_r(&time, &utc);
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
  return text;
}

PlanSpan Span(const char* days, const char* from, const char* to,
              PlanMode mode = PlanMode::kAlways) {
  return {tools::ReadDays(days).value(), tools::ReadTimeOfDay(from).value(),
          tools::ReadTimeOfDay(to).value(), mode};
}

// The changes from one moment on, as UTC.
std::vector<std::string> Changes(const Timetable& plan, const std::string& from, int count) {
  std::vector<std::string> changes;
  std::int64_t moment = MomentOf(from);
  for (int i = 0; i < count; ++i) {
    moment = plan.NextChange(moment);
    changes.push_back(moment == Timetable::kNever ? "never" : UtcText(moment));
  }
  return changes;
}

TEST(Timetable, ADayHasAsManyHoursAsTheClockShows) {
  using List = std::vector<std::string>;
  const struct {
    const char* what;
    const char* zone;
    PlanSpan span;
    const char* from;
    List changes;
  } cases[] = {
      {"an ordinary week's end",
       kBerlin,
       Span("mon-fri", "08:00", "18:00"),
       "2026-01-09 12:00:00",
       {"2026-01-09 17:00:00", "2026-01-12 07:00:00", "2026-01-12 17:00:00"}},
      {"over midnight and the week's end",
       kBerlin,
       Span("sat", "22:00", "06:00"),
       "2026-01-10 00:00:00",
       {"2026-01-10 21:00:00", "2026-01-11 05:00:00", "2026-01-17 21:00:00"}},
      {"a night of 11 hours begins and ends by the clock",
       kBerlin,
       Span("daily", "20:00", "06:00"),
       "2026-10-24 12:00:00",
       {"2026-10-24 18:00:00", "2026-10-25 05:00:00"}},
      {"a night of 9 hours likewise",
       kBerlin,
       Span("daily", "20:00", "06:00"),
       "2026-03-28 12:00:00",
       {"2026-03-28 19:00:00", "2026-03-29 04:00:00"}},
      {"a doubled hour counts twice",
       kBerlin,
       Span("daily", "02:15", "02:45"),
       "2026-10-24 12:00:00",
       {"2026-10-25 00:15:00", "2026-10-25 01:45:00"}},
      {"from the moment of the change",
       kBerlin,
       Span("daily", "02:30", "04:00"),
       "2026-03-28 12:00:00",
       {"2026-03-29 01:00:00", "2026-03-29 02:00:00"}},
      {"up to the moment of the change",
       kBerlin,
       Span("daily", "01:00", "02:30"),
       "2026-03-28 12:00:00",
       {"2026-03-29 00:00:00", "2026-03-29 01:00:00"}},
      {"an hour that does not come is none",
       kBerlin,
       Span("sun", "02:15", "02:45"),
       "2026-03-28 12:00:00",
       {"2026-04-05 00:15:00", "2026-04-05 00:45:00"}},
      {"a day without its midnight",
       kCairo,
       Span("fri", "00:00", "12:00"),
       "2026-04-23 12:00:00",
       {"2026-04-23 22:00:00", "2026-04-24 09:00:00"}},
      {"a last hour that comes twice",
       kCairo,
       Span("thu", "00:00", "24:00"),
       "2026-10-28 12:00:00",
       {"2026-10-28 21:00:00", "2026-10-29 22:00:00"}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    const ProcessZone zone(each.zone);
    const Timetable plan(PlanMode::kNever, {each.span});
    EXPECT_EQ(Changes(plan, each.from, static_cast<int>(each.changes.size())), each.changes);
  }
}

// What the spans say is held against the clock itself, for every quarter of an hour of a year.
TEST(Timetable, EveryMomentOfAYearIsAsTheClockShowsIt) {
  const ProcessZone zone(kBerlin);
  const Timetable plan(PlanMode::kNever, {Span("mon-fri", "07:30", "18:15"),
                                          Span("sat", "22:00", "04:00", PlanMode::kEvents)});
  std::int64_t change = 0;
  PlanMode last = plan.At(MomentOf("2026-01-01 00:00:00") - 1);
  for (std::int64_t moment = MomentOf("2026-01-01 00:00:00");
       moment < MomentOf("2027-01-01 00:00:00"); moment += 900) {
    const std::time_t time = moment;
    std::tm local{};
    localtime_r(&time, &local);
    const int minutes = local.tm_hour * 60 + local.tm_min;
    const bool week = local.tm_wday >= 1 && local.tm_wday <= 5;
    const bool night =
        (local.tm_wday == 6 && minutes >= 22 * 60) || (local.tm_wday == 0 && minutes < 4 * 60);
    const PlanMode expected = week && minutes >= 7 * 60 + 30 && minutes < 18 * 60 + 15
                                  ? PlanMode::kAlways
                              : night ? PlanMode::kEvents
                                      : PlanMode::kNever;
    ASSERT_EQ(plan.At(moment), expected) << UtcText(moment);
    if (expected != last) {
      ASSERT_EQ(change == 0 ? moment : change, moment);
    }
    if (expected != last || change == 0) {
      change = plan.NextChange(moment);
    }
    last = expected;
  }
}

TEST(Timetable, HolidaysAndSpansThatOverlap) {
  const ProcessZone zone("UTC");
  const std::vector<tools::Holiday> holidays = {tools::ReadHoliday("12-25").value(),
                                                tools::ReadHoliday("2026-12-31").value()};
  const Timetable plan(PlanMode::kEvents,
                       {Span("daily", "12:00", "13:00", PlanMode::kNever),
                        Span("mon-fri", "08:00", "18:00"), Span("holidays", "10:00", "11:00")},
                       holidays);
  const struct {
    const char* moment;
    PlanMode mode;
  } cases[] = {
      {"2026-12-24 09:00:00", PlanMode::kAlways}, {"2026-12-24 12:30:00", PlanMode::kNever},
      {"2026-12-25 09:00:00", PlanMode::kEvents}, {"2026-12-25 10:30:00", PlanMode::kAlways},
      {"2026-12-25 12:30:00", PlanMode::kNever},  {"2026-12-31 09:00:00", PlanMode::kEvents},
      {"2027-12-31 09:00:00", PlanMode::kAlways}, {"2026-12-27 09:00:00", PlanMode::kEvents},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(plan.At(MomentOf(each.moment)), each.mode) << each.moment;
  }
  EXPECT_EQ(Timetable(PlanMode::kAlways).NextChange(MomentOf("2026-12-24 09:00:00")),
            Timetable::kNever);
}

// Plans of cameras elsewhere, whatever the recorder's own clock shows.
TEST(Timetable, GoesByTheClockOfItsZone) {
  const ProcessZone zone(kCairo);
  const auto plan = [](const char* name) {
    return Timetable(PlanMode::kNever, {Span("daily", "20:00", "06:00")})
        .In(tools::TimeZone::Named(name).value());
  };
  using List = std::vector<std::string>;
  EXPECT_EQ(Changes(plan("Europe/Berlin"), "2026-10-24 12:00:00", 2),
            (List{"2026-10-24 18:00:00", "2026-10-25 05:00:00"}));
  EXPECT_EQ(Changes(plan("America/New_York"), "2026-10-31 12:00:00", 3),
            (List{"2026-11-01 00:00:00", "2026-11-01 11:00:00", "2026-11-02 01:00:00"}));
  EXPECT_EQ(Changes(plan("Asia/Kathmandu"), "2036-01-01 12:00:00", 1),
            (List{"2036-01-01 14:15:00"}));
  EXPECT_EQ(tools::TimeZone::Named("Europe/Berln"), std::nullopt);
  EXPECT_EQ(tools::TimeZone::Named(""), std::nullopt);
}

}  // namespace
