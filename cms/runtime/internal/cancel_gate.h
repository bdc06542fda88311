// CancelGate ends what waits, and lets nothing begin to wait, for as long as somebody holds it
// shut.
#pragma once

#include <atomic>

#include "cms/runtime/critical.h"
#include "cms/runtime/wake_up.h"

namespace cms {

// Who waits looks at IsShut, or adds Signal to what it polls, or is told. Any thread may call any
// member. Several may hold the gate shut at the same time: it opens after the last of them.
class CancelGate {
 public:
  // Waits for something else than Signal.
  class Waiter {
   public:
    // On the thread that shuts the gate, with the gate's lock held.
    virtual void OnCancel() = 0;

   protected:
    ~Waiter() = default;
  };

  // Holds the gate shut for a scope.
  class Shut {
   public:
    explicit Shut(CancelGate& gate);
    ~Shut();
    Shut(const Shut&) = delete;
    Shut& operator=(const Shut&) = delete;

   private:
    CancelGate& gate_;
  };

  bool IsShut() const { return holders_.load() > 0; }
  const WakeUp& Signal() const { return signal_; }  // readable while the gate is shut

  // The one waiter that is told. Once Leave has returned it is told no more.
  void Enter(Waiter& waiter);
  void Leave(const Waiter& waiter);  // nothing happens when another one has entered

 private:
  CMSCritical lock_;
  std::atomic<int> holders_{0};  // changed under the lock
  Waiter* waiter_ CMS_GUARDED_BY(lock_) = nullptr;
  WakeUp signal_;
};

}  // namespace cms
