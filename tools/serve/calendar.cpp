#include "tools/serve/calendar.h"

#include <cstdio>

#include "cms/runtime/wide_text.h"

namespace tools {

using nlohmann::ordered_json;

ordered_json Calendar::Days(const WebRequest& request) {
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
  engine_.setSearchYearAndMonth(year, month);
  engine_.searchPlaybackInfoForMonth(false);
  for (int day = 1; day <= 31; ++day) {
    if (engine_.getMonthInfo().at(static_cast<std::size_t>(day)) != 0) {
      days.push_back(day);
    }
  }
  return {
      {"year", year}, {"month", month}, {"days", days}, {"complete", engine_.hasReadEverything()}};
}

// From 1: a search over all time would remove events.
void Calendar::Search(const WebRequest& request) {
  const std::int64_t from = request.Number("from", 1, kLatestTime);
  engine_.searchByInterval(from, request.Number("to", from, kLatestTime));
}

std::vector<stPBTimeInfo> Calendar::Spans(const WebRequest& request) {
  const std::lock_guard lock(lock_);
  Search(request);
  return engine_.getNormalPBInfo();
}

ordered_json Calendar::Recordings(const WebRequest& request) {
  ordered_json spans = ordered_json::array();
  ordered_json events = ordered_json::array();
  const std::lock_guard lock(lock_);
  Search(request);
  engine_.loadEventList();
  for (const stPBTimeInfo& span : engine_.getNormalPBInfo()) {
    spans.push_back({{"site", span.siteNumber},
                     {"name", cms::Utf8FromWide(span.records.front().GetSiteNameW())},
                     {"start", span.start},
                     {"end", span.end},
                     {"files", span.records.size()}});
  }
  constexpr const char* kKinds[] = {"alarm", "device", "video_loss"};
  for (const stLocalEvent& event : engine_.getEventTimes()) {
    events.push_back({{"site", event.siteNumber},
                      {"kind", kKinds[event.kind]},
                      {"channel", event.channel},
                      {"start", event.start},
                      {"end", event.end},
                      {"name", event.siteName}});
  }
  return {{"spans", spans}, {"events", events}, {"complete", engine_.hasReadEverything()}};
}

}  // namespace tools
