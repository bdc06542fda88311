// One camera of `orvanta serve`.
#pragma once

#include <mutex>
#include <nlohmann/json.hpp>

#include "tools/serve/live_pictures.h"
#include "tools/serve/site_recorder.h"
#include "tools/support/live_site.h"

namespace tools {

// Any thread. Site N is the N-th URL, from 1, as in the names of its recordings.
class ServeSite {
 public:
  explicit ServeSite(const LiveOptions& options)
      : number_(options.number + 1),
        live_(options),
        pictures_(live_, number_),
        recorder_(live_, options) {}

  void Open() { live_.Open(); }
  ConnectionStatus Status() const { return live_.Status(); }
  LivePictures& Pictures() { return pictures_; }

  // Throws std::runtime_error when nothing can be written. Stopping waits for the disk.
  void Record(bool on);
  void FollowDay();  // owed once a day at least, for recordings to lie in the folder of their day

  nlohmann::ordered_json StatusJson();

 private:
  const int number_;
  LiveSite live_;
  LivePictures pictures_;
  std::mutex recorderLock_;
  SiteRecorder recorder_;  // guarded by it
};

}  // namespace tools
