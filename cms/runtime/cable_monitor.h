// CNetworkCableMonitor tells when network cables are plugged in and pulled out.
#pragma once

#include <memory>

#include "cms/runtime/api.h"

namespace cms {

// An interface ("eth0") that has a link now (non-zero) or has none any more (0). Runs on the
// monitor's thread; the name is valid only during the call.
using NetworkCableCallback = void (*)(void* context, const char* interfaceName, int connected);

// Listens to the kernel (rtnetlink) on a thread of its own, "cms-cable", which sleeps until the
// kernel has something to say. An interface that is switched off or removed has no link; the
// loopback interface is not looked at. What happened while the kernel could not tell (its queue was
// full) is told when it can again, unless it was undone meanwhile.
class CMS_API CNetworkCableMonitor {
 public:
  CNetworkCableMonitor(NetworkCableCallback callback, void* context);
  ~CNetworkCableMonitor();  // stops
  CNetworkCableMonitor(const CNetworkCableMonitor&) = delete;
  CNetworkCableMonitor& operator=(const CNetworkCableMonitor&) = delete;

  // Once. First every interface there is is told, then what changes. False, with the reason in
  // errno, when the system refuses.
  bool Start();
  // No callback runs any more when it returns. Not from a callback.
  void Stop();

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace cms
