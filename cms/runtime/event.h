// Event, a manual-reset event with timed waits on the monotonic clock.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

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
  void Reset();
  bool IsSet() const { return IsSet(state_.load(std::memory_order_acquire)); }

  // Waits until signalled, at most the given milliseconds (negative: without limit). True when
  // released by the event, false on time-out; 0 only looks.
  bool Wait(int milliseconds = kForever);

 private:
  static bool IsSet(std::uint32_t state) { return (state & 1) != 0; }

  // Odd while signalled. Each Set and each Reset that changes anything adds one, so a waiter that
  // began at an even state is released by whatever state comes next, and by no earlier Set.
  std::atomic<std::uint32_t> state_{0};
  std::atomic<int> waiters_{0};
  pthread_mutex_t mutex_;
  pthread_cond_t released_;
};

}  // namespace cms
