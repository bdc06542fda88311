#include "cms/net/internal/wait_ready.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace cms {

Readiness WaitReady(int descriptor, short events, int stop, std::chrono::microseconds limit) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + limit;
  pollfd waited[] = {{stop, POLLIN, 0}, {descriptor, events, 0}};
  while (true) {
    timespec left{};
    if (limit != kNoLimit) {
      const auto rest = std::max(deadline - steady_clock::now(), steady_clock::duration::zero());
      left.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(rest).count();
      left.tv_nsec = std::chrono::nanoseconds(rest - std::chrono::seconds(left.tv_sec)).count();
    }
    const int ready = ppoll(waited, 2, limit != kNoLimit ? &left : nullptr, nullptr);
    if (ready == 0) {
      return Readiness::kTimeOut;
    }
    if (ready < 0) {
      if (errno == EINTR) {
        continue;
      }
      return Readiness::kFailed;
    }
    if (waited[0].revents != 0) {
      return Readiness::kStopped;
    }
    return (waited[1].revents & POLLNVAL) != 0 ? Readiness::kFailed : Readiness::kReady;
  }
}

}  // namespace cms
