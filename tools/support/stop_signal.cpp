#include "tools/support/stop_signal.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>

namespace tools {
namespace {

// Written by the signal handler and never read, so it stays readable for everyone once signalled.
const int kStopEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler writes it");

// A signal may come twice for one wish: a terminal's and a script's, or both of timeout(1)'s, which
// signals its child and then its whole group.
constexpr std::int64_t kOneWish = 500;  // milliseconds
std::atomic<std::int64_t> firstSignal{0};
static_assert(std::atomic<std::int64_t>::is_always_lock_free, "the signal handler writes it");

void OnSignal(int number) {
  const int saved = errno;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t time = std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
  std::int64_t first = 0;
  if (!firstSignal.compare_exchange_strong(first, time) && time - first >= kOneWish) {
    signal(number, SIG_DFL);
    raise(number);
  }
  stopRequested.store(true, std::memory_order_relaxed);
  [[maybe_unused]] const int result = eventfd_write(kStopEvent, 1);
  errno = saved;
}

}  // namespace

void CatchStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested() {
  return stopRequested.load(std::memory_order_relaxed);
}

int StopDescriptor() {
  return kStopEvent;
}

bool WaitForStop(std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + limit;
  while (!StopRequested()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    pollfd wait{kStopEvent, POLLIN, 0};
    poll(&wait, 1, static_cast<int>(std::min<std::int64_t>(left, std::numeric_limits<int>::max())));
  }
  return true;
}

void WaitForStop() {
  while (!WaitForStop(std::chrono::hours(1))) {
  }
}

}  // namespace tools
