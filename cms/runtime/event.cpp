#include "cms/runtime/event.h"

#include <ctime>

namespace cms {
namespace {

timespec Deadline(int milliseconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (time.tv_nsec >= 1'000'000'000) {
    time.tv_sec += 1;
    time.tv_nsec -= 1'000'000'000;
  }
  return time;
}

}  // namespace

Event::Event() {
  pthread_mutex_init(&mutex_, nullptr);
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&released_, &attributes);
  pthread_condattr_destroy(&attributes);
}

Event::~Event() {
  pthread_cond_destroy(&released_);
  pthread_mutex_destroy(&mutex_);
}

// The state changes before the waiters are counted, and a waiter counts itself before it looks at
// the state: in the one total order of these operations at least one side sees the other. A state
// that is signalled already is written all the same, which hands what this thread wrote before on
// to whoever resets or waits later.
void Event::Set() {
  std::uint32_t state = state_.load(std::memory_order_relaxed);
  while (!state_.compare_exchange_weak(state, state | 1, std::memory_order_seq_cst)) {
  }
  if (IsSet(state) || waiters_.load(std::memory_order_seq_cst) == 0) {
    return;
  }
  pthread_mutex_lock(&mutex_);
  pthread_cond_broadcast(&released_);
  pthread_mutex_unlock(&mutex_);
}

void Event::Reset() {
  std::uint32_t state = state_.load(std::memory_order_acquire);
  while (IsSet(state) &&
         !state_.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel)) {
  }
}

bool Event::Wait(int milliseconds) {
  const std::uint32_t begun = state_.load(std::memory_order_acquire);
  if (IsSet(begun)) {
    return true;
  }
  if (milliseconds == 0) {
    return false;
  }
  const timespec deadline = milliseconds > 0 ? Deadline(milliseconds) : timespec{};
  pthread_mutex_lock(&mutex_);
  waiters_.fetch_add(1, std::memory_order_seq_cst);
  bool inTime = true;
  while (inTime && state_.load(std::memory_order_seq_cst) == begun) {
    const int result = milliseconds > 0 ? pthread_cond_timedwait(&released_, &mutex_, &deadline)
                                        : pthread_cond_wait(&released_, &mutex_);
    inTime = result == 0;
  }
  waiters_.fetch_sub(1, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
  return state_.load(std::memory_order_acquire) != begun;
}

}  // namespace cms
