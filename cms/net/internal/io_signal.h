// IoSignal tells an I/O thread that there is something to do besides its sockets.
#pragma once

#include <atomic>

#include "cms/runtime/wake_up.h"

namespace cms {

// Any thread may signal; only the I/O thread clears, and it clears before it looks.
class IoSignal {
 public:
  void Wake() { wakeUp_.Signal(); }
  // Wake, and have the set of watched sockets worked out anew.
  void Change() {
    MarkChanged();
    wakeUp_.Signal();
  }
  void MarkChanged() { changed_.store(true, std::memory_order_release); }  // by the thread itself
  bool TakeChange() { return changed_.exchange(false, std::memory_order_acq_rel); }
  void Clear() { wakeUp_.Clear(); }
  int Descriptor() const { return wakeUp_.Descriptor(); }  // readable while signalled

 private:
  std::atomic<bool> changed_{false};
  WakeUp wakeUp_;
};

}  // namespace cms
