// What is still recorded when the process ends.
#pragma once

#include <functional>
#include <map>

#include "cms/runtime/critical.h"

namespace cms {

// Recorders that nobody destroys before the process ends, because exit() was called or an object is
// static: they are stopped then, and what they accepted is written, but a disk that does not answer
// is not waited for. Any thread.
class ExitStops {
 public:
  static ExitStops& Instance();

  void Add(const void* owner, std::function<void()> stop);  // in the place of the owner's before
  void Remove(const void* owner);                           // waits while it is being stopped

 private:
  void StopAll();

  CMSCritical lock_;
  std::map<const void*, std::function<void()>> stops_ CMS_GUARDED_BY(lock_);
};

}  // namespace cms
