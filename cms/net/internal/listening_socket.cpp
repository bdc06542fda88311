#include "cms/net/internal/listening_socket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/wait_ready.h"

namespace cms {
namespace {

// Seconds of silence until the peer is asked whether it is there, seconds between the questions,
// and how many of them may go unanswered.
constexpr int kKeepAliveAfter = 60;
constexpr int kKeepAliveEvery = 10;
constexpr int kKeepAliveTries = 6;
// How long to wait for a descriptor or memory to come back.
constexpr std::chrono::milliseconds kExhaustedPause{10};

}  // namespace

int OpenListeningSocket(std::uint16_t port, int backlog, std::uint32_t address) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (made < 0) {
    return -1;
  }
  const int on = 1;
  // A server that closes connections itself could otherwise not start again for a minute.
  setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(made, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(made, IPPROTO_TCP, TCP_KEEPIDLE, &kKeepAliveAfter, sizeof kKeepAliveAfter);
  setsockopt(made, IPPROTO_TCP, TCP_KEEPINTVL, &kKeepAliveEvery, sizeof kKeepAliveEvery);
  setsockopt(made, IPPROTO_TCP, TCP_KEEPCNT, &kKeepAliveTries, sizeof kKeepAliveTries);
  setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const sockaddr_in local = MakeAddress(address, port);
  if (bind(made, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      listen(made, backlog) != 0) {
    const int error = errno;
    close(made);
    errno = error;
    return -1;
  }
  return made;
}

sockaddr_in BoundAddress(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return {};
  }
  return address;
}

int AcceptNext(int listening, int stop, sockaddr_in& peer) {
  Readiness waited = Readiness::kReady;
  while (waited != Readiness::kStopped) {
    socklen_t size = sizeof peer;
    const int accepted =
        accept4(listening, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (accepted >= 0) {
      return accepted;
    }
    switch (errno) {
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        waited = WaitReady(-1, 0, stop, kExhaustedPause);
        break;
      case EINVAL:
      case EBADF:
      case ENOTSOCK:
        return -1;
      default:  // nothing to accept, or a connection that is gone already
        waited = WaitReady(listening, POLLIN, stop);
    }
  }
  return -1;
}

}  // namespace cms
