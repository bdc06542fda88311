// Recording of one site, begun and ended while it is watched.
#pragma once

#include <string>

#include "tools/live_site.h"

namespace tools {

// Into the folder of the day. One thread at a time; the process has entered the data folder.
class SiteRecorder {
 public:
  SiteRecorder(LiveSite& live, const LiveOptions& options, int number);
  ~SiteRecorder() { Stop(); }
  SiteRecorder(const SiteRecorder&) = delete;
  SiteRecorder& operator=(const SiteRecorder&) = delete;

  // Begins with the next key frame; throws std::runtime_error when nothing can be written.
  void Start();
  void Stop();       // returns when the recording is in the calendar
  void FollowDay();  // owed once a day at least
  bool IsOn() const { return on_; }

 private:
  std::wstring PathOfToday() const;

  CMSClientBase& client_;
  const int number_;
  std::wstring day_;
  bool on_ = false;
};

}  // namespace tools
