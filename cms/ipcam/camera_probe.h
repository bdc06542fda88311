// ProbeForCameras: which ONVIF devices the networks of this machine have.
#pragma once

#include <functional>
#include <string>

#include "cms/ipcam/discovered_device.h"
#include "cms/runtime/api.h"

namespace cms {

struct CameraProbe {
  std::string target;       // an IPv4 address to ask; empty: everybody, by every interface
  int milliseconds = 5000;  // to listen for answers
  int interrupt = -1;       // a descriptor that ends it when it becomes readable
};

// Sends WS-Discovery probes by each IPv4 interface that can multicast, at once and, as a datagram
// may be lost, again after a second, and tells of each device when its first answer comes: on the
// calling thread, which waits for all of it. False with the reason in `error` when no probe could
// be sent.
CMS_API bool ProbeForCameras(const CameraProbe& probe,
                             const std::function<void(const stDiscoveredDevice&)>& onFound,
                             std::string& error);

}  // namespace cms
