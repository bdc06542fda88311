// Addresses as the system's calls want them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "cms/runtime/ip_address.h"

namespace cms {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;

  SocketAddress() = default;  // for the system to fill in
  SocketAddress(const IpAddress& address, std::uint16_t port);

  sockaddr* Pointer() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* Pointer() const { return reinterpret_cast<const sockaddr*>(&storage); }
  std::uint16_t Port() const;
  IpAddress Address() const;  // none unless it is one of the Internet's
};

// AF_INET or AF_INET6.
inline int FamilyOf(const IpAddress& address) {
  return address.IsV6() ? AF_INET6 : AF_INET;
}

}  // namespace cms
