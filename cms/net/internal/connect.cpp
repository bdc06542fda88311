#include "cms/net/internal/connect.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace cms {
namespace {

using SteadyClock = std::chrono::steady_clock;

// 0 when the connection stands, else the error that ended the attempt.
int AwaitConnected(int descriptor, int timeout, const WakeUp* cancel) {
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(std::max(timeout, 0));
  for (;;) {
    // An absent signal is descriptor -1, which poll passes over.
    pollfd items[2] = {{descriptor, POLLOUT, 0},
                       {cancel != nullptr ? cancel->Descriptor() : -1, POLLIN, 0}};
    int wait = -1;
    if (timeout >= 0) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
      wait = static_cast<int>(std::max<decltype(left)>(left, 0));
    }
    const int ready = poll(items, 2, wait);
    if (ready < 0 && errno != EINTR) {
      return errno;
    }
    if (ready == 0) {
      return ETIMEDOUT;
    }
    if (ready > 0 && items[1].revents != 0) {
      return ECANCELED;
    }
    if (ready > 0 && items[0].revents != 0) {
      int error = 0;
      socklen_t size = sizeof error;
      return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
    }
  }
}

}  // namespace

int ConnectWithin(int descriptor, const SocketAddress& address, int milliseconds,
                  const WakeUp* cancel) {
  if (connect(descriptor, address.Pointer(), address.size) == 0) {
    return 0;
  }
  return errno == EINPROGRESS || errno == EINTR ? AwaitConnected(descriptor, milliseconds, cancel)
                                                : errno;
}

}  // namespace cms
