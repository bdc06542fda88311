// Recording of one site, begun and ended while it is watched.
#pragma once

#include "tools/data/day_folder.h"
#include "tools/support/live_site.h"

namespace tools {

// Into the folder of the day. One thread at a time; the process has entered the data folder.
class SiteRecorder {
 public:
  SiteRecorder(LiveSite& live, const LiveOptions& options)
      : client_(live.Client()), day_(live, options, kFileSizeMiB) {}
  ~SiteRecorder() { Stop(); }
  SiteRecorder(const SiteRecorder&) = delete;
  SiteRecorder& operator=(const SiteRecorder&) = delete;

  // Begins with the next key frame; throws std::runtime_error when nothing can be written.
  void Start();
  void Stop();  // returns when the recording is in the calendar
  void FollowDay() { day_.Follow(); }

 private:
  static constexpr int kFileSizeMiB = 256;

  CMSClientBase& client_;
  DayFolder day_;
  bool on_ = false;
};

}  // namespace tools
