// The few socket calls whose details the clients share.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <cstdint>

namespace cms {

inline bool IsWouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

inline sockaddr_in MakeAddress(std::uint32_t address, std::uint16_t port) {
  sockaddr_in made{};
  made.sin_family = AF_INET;
  made.sin_addr.s_addr = htonl(address);
  made.sin_port = htons(port);
  return made;
}

// Waits for one event of one socket; true when it is ready (or failed, which the next call tells).
inline bool WaitSocket(int descriptor, short events, int milliseconds) {
  pollfd item{descriptor, events, 0};
  return poll(&item, 1, milliseconds) > 0;
}

}  // namespace cms
