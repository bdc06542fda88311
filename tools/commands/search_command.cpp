// orvanta search: which days have recordings, and what was recorded in an interval.
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "tools/commands/command.h"
#include "tools/commands/data_places.h"
#include "tools/data/data_roots.h"
#include "tools/data/month_calendar.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct SearchArguments {
  DataPlaces places;
  std::string month;
  std::string from;
  std::string to;
  bool prune = false;
  bool utc = false;
  bool json = false;
};

struct Interval {
  std::int64_t from = 0;  // seconds, both inclusive
  std::int64_t to = 0;
  int year = 0;  // of --month; 0 without
  int month = 0;
};

Interval ReadInterval(const SearchArguments& arguments) {
  Interval interval;
  if (!arguments.month.empty()) {
    char rest = 0;
    if (std::sscanf(arguments.month.c_str(), "%4d-%2d%c", &interval.year, &interval.month, &rest) !=
            2 ||
        interval.year < 1 || interval.month < 1 || interval.month > 12) {
      throw UsageError("--month", "\"" + arguments.month + "\" is no month; write 2026-11");
    }
    return interval;
  }
  if (arguments.prune) {
    if (!arguments.from.empty() || !arguments.to.empty()) {
      throw UsageError("--prune", "is a search over all time");
    }
    return {LocalPBSearchEngine::kFullRangeStart, LocalPBSearchEngine::kFullRangeEnd};
  }
  if (arguments.from.empty() || arguments.to.empty()) {
    throw UsageError("say --month YYYY-MM, or --from TIME and --to TIME");
  }
  interval.from = ReadTime("--from", arguments.from);
  interval.to = ReadTime("--to", arguments.to, DayEdge::kLastSecond);
  if (interval.from > interval.to) {
    throw UsageError("--to", "lies before --from");
  }
  return interval;
}

std::string KindName(int kind) {
  switch (kind) {
    case stLocalEvent::kAlarm:
      return "alarm";
    case stLocalEvent::kVideoLoss:
      return "video loss";
    default:
      return "device event";
  }
}

// What lies on disk, wherever the reader of the output stands.
std::string PathOf(const FX_RecordDBInfo& record) {
  return std::filesystem::path(cms::PathInData(record.GetFilenameW())).lexically_normal().string();
}

class Search {
 public:
  Search(const SearchArguments& arguments, const Interval& interval,
         const std::vector<std::string>& roots)
      : arguments_(arguments), interval_(interval) {
    if (interval.month != 0) {
      interval_.from = MonthBegin(interval.year, interval.month);
      interval_.to = MonthBegin(interval.year, interval.month + 1) - 1;
    }
    for (const std::string& root : roots) {
      SearchIn(root, roots.size() == 1);
    }
    std::ranges::stable_sort(events_, {}, &stLocalEvent::start);
    std::ranges::stable_sort(gaps_, {}, &cms::GapRow::from);
  }

  bool Complete() const { return complete_; }

  Json ToJson() const {
    Json days = Json::array();
    Json spans = Json::array();
    Json events = Json::array();
    Json gaps = Json::array();
    for (int day = 1; interval_.month != 0 && day <= 31; ++day) {
      if (days_[static_cast<std::size_t>(day)] != 0) {
        days.push_back(day);
      }
    }
    for (const stPBTimeInfo& span : spans_) {
      Json files = Json::array();
      for (const auto& record : span.records) {
        files.push_back(PathOf(record));
      }
      spans.push_back({{"site", span.siteNumber},
                       {"start", UtcTime(span.start)},
                       {"end", UtcTime(span.end)},
                       {"files", std::move(files)}});
    }
    for (const stLocalEvent& event : events_) {
      events.push_back({{"site", event.siteNumber},
                        {"kind", KindName(event.kind)},
                        {"channel", event.channel},
                        {"start", UtcTime(event.start)},
                        {"end", UtcTime(event.end)}});
    }
    for (const cms::GapRow& gap : gaps_) {
      gaps.push_back({{"site", gap.siteNumber},
                      {"cause", GapCauseName(gap.cause)},
                      {"start", UtcTime(gap.from)},
                      {"end", gap.to == 0 ? Json() : Json(UtcTime(gap.to))},
                      {"known_until", UtcTime(gap.to == 0 ? gap.updated : gap.to)}});
    }
    return {{"days", days}, {"spans", spans}, {"events", events}, {"gaps", gaps}};
  }

  void Print() const {
    if (interval_.month != 0) {
      std::printf("%s\n", MonthCalendar(interval_.year, interval_.month, days_).c_str());
    }
    std::printf("Times are %s.\n", arguments_.utc ? "in UTC" : "local, with their distance to UTC");
    for (const stPBTimeInfo& span : spans_) {
      const auto count = span.records.size();
      std::printf("site %u  %s  %s  %zu file%s\n", span.siteNumber, Time(span.start).c_str(),
                  Time(span.end).c_str(), count, count == 1 ? "" : "s");
    }
    for (const stLocalEvent& event : events_) {
      std::printf("site %u  %s  %s  %s, channel %u\n", event.siteNumber, Time(event.start).c_str(),
                  Time(event.end).c_str(), KindName(event.kind).c_str(), event.channel);
    }
    for (const cms::GapRow& gap : gaps_) {
      std::printf("site %u  %s  %s  nothing recorded: %s\n", gap.siteNumber, Time(gap.from).c_str(),
                  (gap.to == 0 ? "still " + Time(gap.updated) : Time(gap.to)).c_str(),
                  GapCauseName(gap.cause).c_str());
    }
    if (spans_.empty()) {
      std::printf("No recordings.\n");
    }
  }

 private:
  void SearchIn(const std::string& root, bool only) {
    LocalPBSearchEngine engine;
    engine.SetDataRoot(root);
    if (interval_.month != 0) {
      engine.setSearchYearAndMonth(interval_.year, interval_.month);
      engine.searchPlaybackInfoForMonth(true);
    } else {
      // A folder of recordings may be away for a while: whoever looks for something removes
      // nothing.
      const bool all = interval_.from == LocalPBSearchEngine::kFullRangeStart &&
                       interval_.to == LocalPBSearchEngine::kFullRangeEnd;
      engine.searchByInterval(interval_.from,
                              all && !arguments_.prune ? interval_.to - 1 : interval_.to);
      engine.loadEventList();
    }
    for (std::size_t day = 0; day < days_.size(); ++day) {
      days_[day] |= engine.getMonthInfo()[day];
    }
    if (only) {
      spans_ = engine.getNormalPBInfo();
    } else {
      AddSpans(root, engine.getNormalPBInfo(), &spans_);
    }
    std::ranges::copy(engine.getEventTimes(), std::back_inserter(events_));
    for (const cms::GapRow& gap : cms::ReadGapLog(0, root).rows) {
      if (gap.from <= interval_.to && (gap.to == 0 || gap.to >= interval_.from)) {
        gaps_.push_back(gap);
      }
    }
    complete_ = complete_ && engine.hasReadEverything();
  }

  std::string Time(std::int64_t seconds) const {
    return arguments_.utc ? UtcTime(seconds) : LocalTime(seconds);
  }

  const SearchArguments& arguments_;
  Interval interval_;
  std::array<int, 32> days_{};
  std::vector<stPBTimeInfo> spans_;
  std::vector<stLocalEvent> events_;
  std::vector<cms::GapRow> gaps_;
  bool complete_ = true;
};

int RunSearch(const SearchArguments& arguments) {
  if (!arguments.places.Any()) {
    throw UsageError("say --data DIR, or --config FILE");
  }
  const Interval interval = ReadInterval(arguments);
  const FoundPlaces found = EnterDataPlaces(arguments.places);
  const Search search(arguments, interval, found.roots);
  if (arguments.json) {
    std::printf("%s\n", search.ToJson().dump(2).c_str());
  } else {
    search.Print();
  }
  if (!search.Complete()) {
    std::fprintf(stderr,
                 "orvanta search: %s: a database is there that could not be read; there may be "
                 "more than this (see orvanta db)\n",
                 (arguments.places.data + arguments.places.config).c_str());
  }
  return TellPlacesAway(found, "search") && search.Complete() ? 0 : 1;
}

}  // namespace

void AddSearchCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<SearchArguments>();
  const Command search = app.Add("search", "Find recordings, events and gaps");
  AddDataPlaceOptions(search, arguments->places);
  const Option month =
      search.AddOption("--month", arguments->month, "a calendar of the month's days, in UTC")
          .TypeName("YYYY-MM");
  search
      .AddOption("--from", arguments->from,
                 "2026-11-21T10:30:00 (local), ...Z (UTC), ...+01:00, or 2026-11-21")
      .TypeName("TIME")
      .Excludes(month);
  search.AddOption("--to", arguments->to, "likewise; a day alone is its end")
      .TypeName("TIME")
      .Excludes(month);
  search
      .AddFlag("--prune", arguments->prune,
               "search all time, and take the events out of the event list that no recording shows "
               "any more")
      .Excludes(month);
  search.AddFlag("--utc", arguments->utc, "print times in UTC");
  search.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  search.Run([arguments, &result] { result.status = RunSearch(*arguments); });
}

}  // namespace tools
