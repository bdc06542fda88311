#include "tools/serve/calendar.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "cms/recording/gap_log.h"
#include "cms/recording/keep/protect_recordings.h"
#include "cms/runtime/wide_text.h"

namespace tools {

using nlohmann::ordered_json;

namespace {

// "1761955200,1762041600": where each day begins, and where the last one ends.
std::vector<std::int64_t> StartsOf(std::string_view text) {
  constexpr std::size_t kMostStarts = 32;
  std::vector<std::int64_t> starts;
  const char* at = text.data();
  const char* const end = at + text.size();
  for (; starts.size() < kMostStarts; ++at) {
    std::int64_t start = 0;
    const auto [behind, error] = std::from_chars(at, end, start);
    if (error != std::errc() || start <= (starts.empty() ? 0 : starts.back()) ||
        start > kLatestTime) {
      break;
    }
    starts.push_back(start);
    at = behind;
    if (at == end && starts.size() > 1) {
      return starts;
    }
    if (at == end || *at != ',') {
      break;
    }
  }
  throw BadRequest("starts are 2 to " + std::to_string(kMostStarts) +
                   " rising numbers such as 1761955200,1762041600");
}

}  // namespace

ordered_json Calendar::Days(const WebRequest& request) {
  if (const auto starts = request.Value("starts")) {
    return DaysBetween(StartsOf(*starts));
  }
  int year = 0;
  int month = 0;
  char rest = 0;
  const std::string text(request.Value("month").value_or(""));
  if (std::sscanf(text.c_str(), "%4d-%2d%c", &year, &month, &rest) != 2 || year < 1970 ||
      month < 1 || month > 12) {
    throw BadRequest("month is one such as 2026-11");
  }
  ordered_json days = ordered_json::array();
  const std::lock_guard lock(lock_);
  FollowRoots();
  for (const auto& [root, engine] : engines_) {
    engine->setSearchYearAndMonth(year, month);
    engine->searchPlaybackInfoForMonth(false);
  }
  for (std::size_t day = 1; day <= 31; ++day) {
    if (std::ranges::any_of(
            engines_, [&](const auto& each) { return each.second->getMonthInfo().at(day) != 0; })) {
      days.push_back(day);
    }
  }
  return {{"year", year}, {"month", month}, {"days", days}, {"complete", HasReadEverything()}};
}

ordered_json Calendar::DaysBetween(const std::vector<std::int64_t>& starts) {
  std::vector<bool> marked(starts.size() - 1);
  const std::lock_guard lock(lock_);
  for (const stPBTimeInfo& span : SearchBetween(starts.front(), starts.back() - 1)) {
    for (std::size_t day = 0; day < marked.size(); ++day) {
      marked[day] = marked[day] || (span.start < starts[day + 1] && span.end >= starts[day]);
    }
  }
  ordered_json days = ordered_json::array();
  for (std::size_t day = 0; day < marked.size(); ++day) {
    if (marked[day]) {
      days.push_back(day + 1);
    }
  }
  return {{"days", days}, {"complete", HasReadEverything()}};
}

void Calendar::FollowRoots() {
  const std::vector<std::string> roots = roots_();
  std::erase_if(engines_, [&](const auto& each) {
    return std::ranges::find(roots, each.first) == roots.end();
  });
  for (const std::string& root : roots) {
    std::unique_ptr<LocalPBSearchEngine>& engine = engines_[root];
    if (!engine) {
      engine = std::make_unique<LocalPBSearchEngine>();
      engine->SetDataRoot(root);
    }
  }
}

bool Calendar::HasReadEverything() const {
  return std::ranges::all_of(engines_,
                             [](const auto& each) { return each.second->hasReadEverything(); });
}

// From 1: a search over all time would remove events.
std::vector<stPBTimeInfo> Calendar::Search(const WebRequest& request) {
  const std::int64_t from = request.Number("from", 1, kLatestTime);
  return SearchBetween(from, request.Number("to", from, kLatestTime));
}

std::vector<stPBTimeInfo> Calendar::SearchBetween(std::int64_t from, std::int64_t to) {
  FollowRoots();
  std::vector<stPBTimeInfo> spans;
  for (const auto& [root, engine] : engines_) {
    engine->searchByInterval(from, to);
    AddSpans(root, engine->getNormalPBInfo(), &spans);
  }
  return spans;
}

std::vector<stPBTimeInfo> Calendar::Spans(const WebRequest& request) {
  const std::lock_guard lock(lock_);
  return Search(request);
}

ordered_json Calendar::Recordings(const WebRequest& request) {
  ordered_json spans = ordered_json::array();
  ordered_json events = ordered_json::array();
  const std::lock_guard lock(lock_);
  const std::vector<stPBTimeInfo> found = Search(request);
  for (const stPBTimeInfo& span : found) {
    spans.push_back({{"site", span.siteNumber},
                     {"name", cms::Utf8FromWide(span.records.front().GetSiteNameW())},
                     {"start", span.start},
                     {"end", span.end},
                     {"files", span.records.size()}});
  }
  constexpr const char* kKinds[] = {"alarm", "device", "video_loss"};
  for (const auto& [root, engine] : engines_) {
    engine->loadEventList();
    for (const stLocalEvent& event : engine->getEventTimes()) {
      events.push_back({{"site", event.siteNumber},
                        {"kind", kKinds[event.kind]},
                        {"channel", event.channel},
                        {"start", event.start},
                        {"end", event.end},
                        {"name", event.siteName}});
    }
  }
  const std::int64_t from = request.Number("from", 1, kLatestTime);
  const std::int64_t to = request.Number("to", from, kLatestTime);
  return {{"spans", spans},
          {"events", events},
          {"gaps", Gaps(from, to, found)},
          {"kept", Kept(from, to)},
          {"complete", HasReadEverything()}};
}

// One that lasts has no "end". Where a disk failed the site goes on on another one, and what failed
// never tells of an end.
ordered_json Calendar::Gaps(std::int64_t from, std::int64_t to,
                            const std::vector<stPBTimeInfo>& spans) const {
  ordered_json gaps = ordered_json::array();
  for (const auto& [root, engine] : engines_) {
    for (cms::GapRow gap : cms::ReadGapLog(0, root).rows) {
      const auto behind = std::ranges::find_if(spans, [&](const stPBTimeInfo& span) {
        return gap.to == 0 && span.siteNumber == gap.siteNumber && span.end > gap.from;
      });
      if (behind != spans.end()) {
        gap.to = std::max(gap.from, behind->start);
      }
      if (gap.from > to || (gap.to != 0 && gap.to < from)) {
        continue;
      }
      ordered_json told{
          {"site", gap.siteNumber}, {"cause", cms::GapCauseName(gap.cause)}, {"start", gap.from}};
      if (gap.to != 0) {
        told["end"] = gap.to;
      }
      gaps.push_back(std::move(told));
    }
  }
  return gaps;
}

ordered_json Calendar::Kept(std::int64_t from, std::int64_t to) const {
  ordered_json kept = ordered_json::array();
  for (const auto& [root, engine] : engines_) {
    for (const cms::ProtectedSpan& each : cms::ReadProtectedSpans(root).spans) {
      const ordered_json row{
          {"site", each.span.site}, {"start", each.span.from}, {"end", each.span.to}};
      if (each.span.from <= to && each.span.to >= from &&
          std::ranges::find(kept, row) == kept.end()) {
        kept.push_back(row);
      }
    }
  }
  return kept;
}

}  // namespace tools
