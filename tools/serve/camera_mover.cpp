#include "tools/serve/camera_mover.h"

#include <pthread.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "tools/support/camera_site.h"

namespace tools {
namespace {

// A camera is told of a movement that goes on so often, and stops by itself so long after.
constexpr std::chrono::milliseconds kTellAgain{1'000};
constexpr int kCameraStops = 3;  // seconds

constexpr CameraMover::Speed kStill;

bool PansOrTilts(const CameraMover::Speed& speed) {
  return speed.pan != 0 || speed.tilt != 0;
}

}  // namespace

CameraMover::CameraMover(const cms::OnvifAccess& access) : ptz_(access) {}

// A camera that moves stops by itself: it may be one that does not answer.
CameraMover::~CameraMover() {
  std::thread thread;
  {
    const ScopeLock lock(lock_);
    quit_ = true;
    thread = std::move(thread_);
  }
  changed_.notify_all();
  if (thread.joinable()) {
    ptz_.Interrupt();
    thread.join();
  }
}

template <typename Ask>
void CameraMover::Require(const Ask& ask) {
  const ScopeLock camera(cameraLock_);
  const CameraWait wait([this]() CMS_NO_THREAD_SAFETY_ANALYSIS { ptz_.Interrupt(); });
  if (!ask()) {
    throw std::runtime_error(ptz_.LastError());
  }
}

CameraMover::Abilities CameraMover::Read() {
  cms::PtzFeatures features;
  Abilities abilities;
  Require([&]() CMS_REQUIRES(cameraLock_) {
    return ptz_.ReadFeatures(features) &&
           (features.mostPresets == 0 || ptz_.ReadPresets(abilities.presets));
  });
  abilities.panTilt = !features.panTiltSpeed.space.empty();
  abilities.zoom = !features.zoomSpeed.space.empty();
  abilities.home = features.home;
  return abilities;
}

void CameraMover::GoTo(const std::string& preset) {
  Require([&]() CMS_REQUIRES(cameraLock_) { return ptz_.GoToPreset(preset); });
}

void CameraMover::GoHome() {
  Require([&]() CMS_REQUIRES(cameraLock_) { return ptz_.GoHome(); });
}

std::string CameraMover::Move(const Speed& speed) {
  const ScopeLock lock(lock_);
  wanted_ = speed;
  renewed_ = Clock::now();
  if (!thread_.joinable() && !quit_) {
    thread_ = std::thread([this] { Run(); });
  }
  changed_.notify_all();
  return problem_;
}

std::string CameraMover::Tell(const Speed& speed) {
  const ScopeLock camera(cameraLock_);
  cms::PtzVector vector;
  if (PansOrTilts(speed)) {
    vector.pan = speed.pan;
    vector.tilt = speed.tilt;
  }
  if (speed.zoom != 0) {
    vector.zoom = speed.zoom;
  }
  const bool done = speed == kStill ? ptz_.Stop() : ptz_.Move(vector, kCameraStops);
  return done ? std::string() : ptz_.LastError();
}

void CameraMover::Run() {
  pthread_setname_np(pthread_self(), "page-ptz");
  Speed told;
  Clock::time_point toldAt;
  ScopeLock lock(lock_);
  while (!quit_) {
    const auto now = Clock::now();
    if (now - renewed_ >= kRenewedWithin) {
      wanted_ = kStill;
    }
    if (!(wanted_ == told) || (!(told == kStill) && now - toldAt >= kTellAgain)) {
      // What is not in a movement goes on as it was.
      const bool leavesAxis =
          (PansOrTilts(told) && !PansOrTilts(wanted_)) || (told.zoom != 0 && wanted_.zoom == 0);
      told = leavesAxis ? kStill : wanted_;
      lock.UnLock();
      std::string problem = Tell(told);
      lock.Lock();
      toldAt = Clock::now();
      problem_ = std::move(problem);
    } else if (told == kStill) {
      changed_.wait(lock_);
    } else {
      changed_.wait_until(lock_, std::min(renewed_ + kRenewedWithin, toldAt + kTellAgain));
    }
  }
}

}  // namespace tools
