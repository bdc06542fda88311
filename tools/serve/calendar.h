// The calendar of the recordings under the data folder, as JSON.
#pragma once

#include <mutex>
#include <nlohmann/json.hpp>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "tools/serve/web_request.h"

namespace tools {

// Any thread. Times are seconds since 1970-01-01 UTC, days those of UTC.
class Calendar {
 public:
  // month=YYYY-MM: the days of it on which a recording starts.
  nlohmann::ordered_json Days(const WebRequest& request);
  // from=SECONDS&to=SECONDS: the stretches and the events in between.
  nlohmann::ordered_json Recordings(const WebRequest& request);
  // The stretches of the same query.
  std::vector<stPBTimeInfo> Spans(const WebRequest& request);

 private:
  void Search(const WebRequest& request);

  std::mutex lock_;
  LocalPBSearchEngine engine_;  // guarded by lock_; remembers what it has read
};

}  // namespace tools
