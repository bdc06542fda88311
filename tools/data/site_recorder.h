// Recording of one site, begun and ended while it is watched.
#pragma once

#include "tools/data/day_folder.h"
#include "tools/support/live_site.h"

namespace tools {

// Into the folder of the day. One thread at a time; the process has entered the data folder.
class SiteRecorder {
 public:
  SiteRecorder(LiveSite& live, const LiveOptions& options, int fileSizeMiB)
      : client_(live.Client()), day_(live, options, fileSizeMiB) {}
  ~SiteRecorder() { Stop(); }
  SiteRecorder(const SiteRecorder&) = delete;
  SiteRecorder& operator=(const SiteRecorder&) = delete;

  // Begins with the next key frame; throws std::runtime_error when nothing can be written.
  void Start();
  void End();   // what arrives from now on is not recorded
  void Stop();  // the same, and returns when the recording is in the calendar
  void FollowDay() { day_.Follow(); }

 private:
  CMSClientBase& client_;
  DayFolder day_;
  bool on_ = false;
  bool unwritten_ = false;  // ended, and not waited for
};

}  // namespace tools
