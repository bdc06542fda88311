// One camera that browsers can watch: of `orvanta serve`, or of the recorder's service.
#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/data/site_recorder.h"
#include "tools/serve/camera_mover.h"
#include "tools/serve/live_pictures.h"
#include "tools/serve/open_while_used.h"
#include "tools/serve/site_stream.h"
#include "tools/service/recorder_figures.h"
#include "tools/support/live_site.h"

namespace tools {

// Any thread. Numbers are those in the names of the recordings, from 1.
class ServeSite {
 public:
  static constexpr int kFileSizeMiB = 256;

  // `secondUrl` is that of a smaller stream to be watched in its place, of the same camera.
  explicit ServeSite(const LiveOptions& options, int fileSizeMiB = kFileSizeMiB,
                     const std::string& secondUrl = {});

  int Number() const { return number_; }
  void Open() { live_.Open(); }
  void Close() { live_.Close(); }
  CMSClientBase& Client() { return live_.Client(); }
  cms::ConnectionStatus Status() const { return live_.Status(); }
  // What browsers watch; somebody who does holds a use of it.
  OpenWhileUsed& Watched() { return watched_; }
  LivePictures& Pictures() { return pictures_; }
  SiteStream& Stream() { return stream_; }

  CameraMover* Mover() { return mover_.get(); }  // null: not known as an ONVIF camera

  // Throws std::runtime_error when nothing can be written. Stopping waits for the disk.
  void Record(bool on);
  void FollowDay();  // owed once a day at least, for recordings to lie in the folder of their day

  nlohmann::ordered_json StatusJson();
  SiteFigures Figures();

 private:
  const int number_;
  SiteStream stream_;  // of the one that is watched; outlives both
  LiveSite live_;
  std::unique_ptr<LiveSite> second_;  // null: the first is watched
  const std::unique_ptr<CameraMover> mover_;
  OpenWhileUsed watched_;
  LivePictures pictures_;
  std::mutex recorderLock_;
  SiteRecorder recorder_;  // guarded by it
};

}  // namespace tools
