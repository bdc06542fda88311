// One camera of `orvanta record`: what is recorded of it, into which files.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/day_folder.h"
#include "tools/live_site.h"

namespace tools {

struct RecordOptions {
  int fileSizeMiB = 256;
  bool schedule = false;
  unsigned eventEvery = 0;  // seconds; 0: everything is recorded
  unsigned eventLength = 5;
  unsigned preAlarm = 0;
  std::wstring moveTo;  // as the library writes paths; empty: nowhere
};

// The process has entered the data folder. Site N is the N-th URL.
class RecordSite {
 public:
  // Throws std::runtime_error for a URL that cannot be read.
  RecordSite(const LiveOptions& live, const RecordOptions& options);

  // Connects in the background and begins recording; throws std::runtime_error when nothing can be
  // written.
  void Start();
  void Look();  // several times a second: events, and the day's folder
  void Finish();

  bool EverDelivered() const { return delivered_ || (live_ && live_->EverDelivered()); }
  ConnectionStatus Status() const { return lastStatus_; }
  const std::string& Url() const { return url_; }
  std::string StatusLine();
  nlohmann::ordered_json Json() const;  // after Finish

 private:
  using Clock = std::chrono::steady_clock;

  void LookForEvent();
  std::string WhereIsNow(const std::wstring& drvPath) const;

  const RecordOptions options_;
  const unsigned number_;  // from 1
  std::string url_;
  std::unique_ptr<LiveSite> live_;
  std::unique_ptr<DayFolder> day_;  // of the live site
  Clock::time_point started_;
  std::int64_t startedSeconds_ = 0;
  std::int64_t stoppedSeconds_ = 0;
  std::vector<std::wstring> files_;
  cms::RecordingStatus recorded_;
  ConnectionStatus lastStatus_;
  bool delivered_ = false;
};

}  // namespace tools
