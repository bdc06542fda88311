// OnvifEvents, the subscriptions to what cameras tell.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "cms/ipcam/camera_event.h"
#include "cms/ipcam/onvif_access.h"
#include "cms/runtime/api.h"

namespace cms {

struct OnvifEventStatus {
  bool subscribed = false;
  unsigned subscriptions = 0;  // made so far: one more each time that the camera forgot it
  bool refused = false;        // the camera does not take the user or the password
  std::string error;           // one line for people while not subscribed; no password in it
};

// Subscribes to the events of ONVIF cameras by pull points (ONVIF Core, "Real-time Pull-Point
// Notification Interface") and keeps doing so: a subscription that the camera forgot is made anew,
// a camera that is away is asked again after 1 to 30 s, one that refuses the password after ten
// minutes. Requests bear the time of the camera's clock, whatever that is.
//
// A state is told when it changes, and once when it is first seen (CameraEvent::initial). What
// changed while nothing was subscribed is told when it is seen again; the same state twice is not.
// A state that was on and that the camera knows nothing of any more half a minute after it was
// asked anew is told to be off.
//
// One thread ("cms-events") serves all cameras, from the first subscription to the destruction; it
// sleeps while no camera tells anything.
class CMS_API OnvifEvents {
 public:
  // Both are called on that thread with no lock held, and are to return soon: all cameras wait.
  using OnEvent = std::function<void(const CameraEvent&)>;
  using OnStatus = std::function<void(const OnvifEventStatus&)>;  // when something in it changed

  OnvifEvents();
  // Takes the subscriptions back from the cameras, all at once: what cannot be done within five
  // seconds runs out at the camera by itself a minute later.
  ~OnvifEvents();
  OnvifEvents(const OnvifEvents&) = delete;
  OnvifEvents& operator=(const OnvifEvents&) = delete;

  // Any thread. Returns at once with the number to end it with, never 0; 0 when the system has no
  // thread for it. The access needs a host and a user.
  unsigned Subscribe(const OnvifAccess& access, OnEvent onEvent, OnStatus onStatus = {});
  // Any thread but that of the callbacks; no callback of it runs any more when this returns, which
  // is at once: the camera is told in the background.
  void Unsubscribe(unsigned number);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace cms
