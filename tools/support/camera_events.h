// What a camera tells over ONVIF as what its recording is told.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_events.h"

namespace tools {

// The words of --events: motion, input, line, video-loss, tampering.
const std::vector<std::string>& CameraEventWords();

// One camera's events of some kinds, from construction to destruction.
class CameraEvents {
 public:
  // `events` outlives it.
  CameraEvents(cms::OnvifEvents& events, const cms::OnvifAccess& access,
               const std::vector<std::string>& words);
  ~CameraEvents();
  CameraEvents(const CameraEvents&) = delete;
  CameraEvents& operator=(const CameraEvents&) = delete;

  // The event state of the camera's channel at this moment (cms::CMSEventState): motion, line
  // crossing and tampering are device events, an input is an alarm. However short an event is, it
  // shows for a second, so that a frame is marked; a moment shows for two. A camera that tells
  // nothing any more, for a minute, has no event. Any thread.
  unsigned State() const;

  // All the bits that State may have.
  unsigned States() const { return states_; }

  cms::OnvifEventStatus Status() const;  // any thread

 private:
  struct Running {
    std::set<std::string> on;   // which of the camera's parts
    std::uint64_t shownTo = 0;  // tick
  };

  void Take(const cms::CameraEvent& event);

  cms::OnvifEvents& events_;
  unsigned states_ = 0;
  std::set<cms::CameraEventKind> kinds_;
  mutable std::mutex mutex_;
  Running running_[3];  // by bit of the event state; guarded by it, like the rest
  cms::OnvifEventStatus status_;
  std::uint64_t lost_ = 0;  // tick since when nothing is told; 0: something is
  unsigned number_ = 0;
};

}  // namespace tools
