// Event, a manual-reset event with timed waits on the monotonic clock.
#pragma once

#include <pthread.h>

#include <atomic>

#include "cms/runtime/api.h"

namespace cms {

// Signalled by Set until Reset. Any thread may call any member; the object must outlive every call.
// What a thread wrote before Set is visible to the threads that the Set releases. A Set that finds
// the event signalled already, or nobody waiting, takes no lock.
class CMS_API Event {
 public:
  static constexpr int kForever = -1;

  Event();
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Releases every thread that waits at this moment, even when Reset follows at once.
  void Set();
  void Reset() { signalled_.exchange(false, std::memory_order_acq_rel); }
  bool IsSet() const { return signalled_.load(std::memory_order_acquire); }

  // Waits until signalled, at most the given milliseconds (negative: without limit). True when
  // released by the event, false on time-out; 0 only looks.
  bool Wait(int milliseconds = kForever);

 private:
  std::atomic<bool> signalled_{false};
  std::atomic<int> waiters_{0};
  pthread_mutex_t mutex_;
  pthread_cond_t released_;
  unsigned releases_ = 0;  // guarded by mutex_; moves on at each Set that had waiters
};

}  // namespace cms
