// A camera that browsers move.
#pragma once

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

#include "cms/ipcam/onvif_ptz.h"
#include "cms/runtime/critical.h"

namespace tools {

// What a camera is told of a movement goes out on a thread of its own, begun with the first one, so
// that nobody who drags waits for the camera, and the newest direction alone is told. Who moves it
// says so again before kRenewedWithin is over, or it is stopped: a browser may be lost. Where this
// program is lost, the camera stops by itself some seconds later.
//
// Any thread. What is asked of the camera with an answer waits for it, until a stop is asked for,
// and throws std::runtime_error that names the camera's reason.
class CameraMover {
 public:
  static constexpr std::chrono::milliseconds kRenewedWithin{2'000};

  explicit CameraMover(const cms::OnvifAccess& access);
  ~CameraMover();
  CameraMover(const CameraMover&) = delete;
  CameraMover& operator=(const CameraMover&) = delete;

  struct Abilities {
    bool panTilt = false;
    bool zoom = false;
    bool home = false;
    std::vector<cms::PtzPreset> presets;
  };
  Abilities Read();
  void GoTo(const std::string& preset);  // its token
  void GoHome();

  // Parts of the highest speed, -1 to 1; all of them 0 stop it. Why the last of these failed, empty
  // when it did not.
  struct Speed {
    double pan = 0;
    double tilt = 0;
    double zoom = 0;
    bool operator==(const Speed&) const = default;
  };
  std::string Move(const Speed& speed);

 private:
  using Clock = std::chrono::steady_clock;

  template <typename Ask>
  void Require(const Ask& ask);
  void Run();
  std::string Tell(const Speed& speed);

  CMSCritical cameraLock_;  // one asks at a time; taken before the other
  cms::OnvifPtz ptz_ CMS_GUARDED_BY(cameraLock_);

  CMSCritical lock_;
  std::condition_variable_any changed_;
  Speed wanted_ CMS_GUARDED_BY(lock_);
  Clock::time_point renewed_ CMS_GUARDED_BY(lock_);
  std::string problem_ CMS_GUARDED_BY(lock_);
  bool quit_ CMS_GUARDED_BY(lock_) = false;
  std::thread thread_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools
