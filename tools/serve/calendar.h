// The calendar of the recordings in the data roots, as JSON.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "tools/data/data_roots.h"
#include "tools/serve/web_request.h"

namespace tools {

// Any thread. Times are seconds since 1970-01-01 UTC, days those of UTC.
class Calendar {
 public:
  explicit Calendar(DataRoots roots) : roots_(std::move(roots)) {}

  // month=YYYY-MM: the days of it, in UTC, on which a recording starts. starts=A,B,...,Z: the days
  // that begin there, Z being the last one's end, of which anything was recorded.
  nlohmann::ordered_json Days(const WebRequest& request);
  // from=SECONDS&to=SECONDS: the stretches, the events and the gaps in between, and what is kept.
  nlohmann::ordered_json Recordings(const WebRequest& request);
  // The stretches of the same query.
  std::vector<stPBTimeInfo> Spans(const WebRequest& request);

 private:
  void FollowRoots();
  nlohmann::ordered_json DaysBetween(const std::vector<std::int64_t>& starts);
  std::vector<stPBTimeInfo> Search(const WebRequest& request);
  std::vector<stPBTimeInfo> SearchBetween(std::int64_t from, std::int64_t to);  // under lock_
  bool HasReadEverything() const;
  nlohmann::ordered_json Gaps(std::int64_t from, std::int64_t to,
                              const std::vector<stPBTimeInfo>& spans) const;
  nlohmann::ordered_json Kept(std::int64_t from, std::int64_t to) const;

  const DataRoots roots_;
  std::mutex lock_;
  // Guarded by lock_, of each root; they remember what they have read.
  std::map<std::string, std::unique_ptr<LocalPBSearchEngine>> engines_;
};

}  // namespace tools
