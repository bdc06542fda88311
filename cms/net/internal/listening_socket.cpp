#include "cms/net/internal/listening_socket.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace cms {

int OpenListeningSocket(std::uint16_t port, int backlog) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (made < 0) {
    return -1;
  }
  const int on = 1;
  // A server that closes connections itself could otherwise not start again for a minute.
  setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(made, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  any.sin_port = htons(port);
  if (bind(made, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
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

AcceptFailure WhyAcceptFailed(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return AcceptFailure::kExhausted;
    case EINVAL:
    case EBADF:
    case ENOTSOCK:
      return AcceptFailure::kClosed;
    default:
      return AcceptFailure::kTryAgain;
  }
}

}  // namespace cms
