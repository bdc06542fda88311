// orvanta search: which days have recordings, and what was recorded in an interval.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/month_calendar.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct SearchArguments {
  std::string data;
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
  Search(const SearchArguments& arguments, const Interval& interval)
      : arguments_(arguments), interval_(interval) {
    if (interval.month != 0) {
      engine_.setSearchYearAndMonth(interval.year, interval.month);
      engine_.searchPlaybackInfoForMonth(true);
      interval_.from = MonthBegin(interval.year, interval.month);
      interval_.to = MonthBegin(interval.year, interval.month + 1) - 1;
    } else {
      // A folder of recordings may be away for a while: whoever looks for something removes
      // nothing.
      const bool all = interval.from == LocalPBSearchEngine::kFullRangeStart &&
                       interval.to == LocalPBSearchEngine::kFullRangeEnd;
      engine_.searchByInterval(interval.from,
                               all && !arguments.prune ? interval.to - 1 : interval.to);
      engine_.loadEventList();
    }
    for (const cms::GapRow& gap : cms::ReadGapLog(0).rows) {
      if (gap.from <= interval_.to && (gap.to == 0 || gap.to >= interval_.from)) {
        gaps_.push_back(gap);
      }
    }
  }

  bool Complete() const { return engine_.hasReadEverything(); }

  Json ToJson() const {
    Json days = Json::array();
    Json spans = Json::array();
    Json events = Json::array();
    Json gaps = Json::array();
    for (int day = 1; interval_.month != 0 && day <= 31; ++day) {
      if (engine_.getMonthInfo()[static_cast<std::size_t>(day)] != 0) {
        days.push_back(day);
      }
    }
    for (const stPBTimeInfo& span : engine_.getNormalPBInfo()) {
      Json files = Json::array();
      for (const auto& record : span.records) {
        files.push_back(PathOf(record));
      }
      spans.push_back({{"site", span.siteNumber},
                       {"start", UtcTime(span.start)},
                       {"end", UtcTime(span.end)},
                       {"files", std::move(files)}});
    }
    for (const stLocalEvent& event : engine_.getEventTimes()) {
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
      std::printf("%s\n",
                  MonthCalendar(interval_.year, interval_.month, engine_.getMonthInfo()).c_str());
    }
    std::printf("Times are %s.\n", arguments_.utc ? "in UTC" : "local, with their distance to UTC");
    for (const stPBTimeInfo& span : engine_.getNormalPBInfo()) {
      const auto count = span.records.size();
      std::printf("site %u  %s  %s  %zu file%s\n", span.siteNumber, Time(span.start).c_str(),
                  Time(span.end).c_str(), count, count == 1 ? "" : "s");
    }
    for (const stLocalEvent& event : engine_.getEventTimes()) {
      std::printf("site %u  %s  %s  %s, channel %u\n", event.siteNumber, Time(event.start).c_str(),
                  Time(event.end).c_str(), KindName(event.kind).c_str(), event.channel);
    }
    for (const cms::GapRow& gap : gaps_) {
      std::printf("site %u  %s  %s  nothing recorded: %s\n", gap.siteNumber, Time(gap.from).c_str(),
                  (gap.to == 0 ? "still " + Time(gap.updated) : Time(gap.to)).c_str(),
                  GapCauseName(gap.cause).c_str());
    }
    if (engine_.getNormalPBInfo().empty()) {
      std::printf("No recordings.\n");
    }
  }

 private:
  std::string Time(std::int64_t seconds) const {
    return arguments_.utc ? UtcTime(seconds) : LocalTime(seconds);
  }

  const SearchArguments& arguments_;
  Interval interval_;
  LocalPBSearchEngine engine_;
  std::vector<cms::GapRow> gaps_;
};

int RunSearch(const SearchArguments& arguments) {
  const Interval interval = ReadInterval(arguments);
  const DataFolder folder = EnterDataFolder(arguments.data, DataFolderUse::kRead);
  const Search search(arguments, interval);
  if (arguments.json) {
    std::printf("%s\n", search.ToJson().dump(2).c_str());
  } else {
    search.Print();
  }
  if (!search.Complete()) {
    std::fprintf(stderr,
                 "orvanta search: %s: a database is there that could not be read; there may be "
                 "more than this (see orvanta db)\n",
                 folder.path.c_str());
    return 1;
  }
  return 0;
}

}  // namespace

void AddSearchCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<SearchArguments>();
  const Command search = app.Add("search", "Find recordings, events and gaps");
  AddDataOption(search, arguments->data);
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
