#include "cms/net/internal/socket_address.h"

#include <array>
#include <cstring>

namespace cms {

SocketAddress::SocketAddress(const IpAddress& address, std::uint16_t port) {
  if (address.IsV6()) {
    sockaddr_in6 made{};
    made.sin6_family = AF_INET6;
    made.sin6_port = htons(port);
    made.sin6_scope_id = address.Scope();
    std::memcpy(made.sin6_addr.s6_addr, address.V6().data(), address.V6().size());
    std::memcpy(&storage, &made, sizeof made);
    size = sizeof made;
  } else {
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_port = htons(port);
    made.sin_addr.s_addr = htonl(address.V4());
    std::memcpy(&storage, &made, sizeof made);
    size = sizeof made;
  }
}

// Both versions have it at the same place.
std::uint16_t SocketAddress::Port() const {
  sockaddr_in filled{};
  std::memcpy(&filled, &storage, sizeof filled);
  return ntohs(filled.sin_port);
}

IpAddress SocketAddress::Address() const {
  if (storage.ss_family == AF_INET) {
    sockaddr_in filled{};
    std::memcpy(&filled, &storage, sizeof filled);
    return IpAddress(ntohl(filled.sin_addr.s_addr));
  }
  if (storage.ss_family == AF_INET6) {
    sockaddr_in6 filled{};
    std::memcpy(&filled, &storage, sizeof filled);
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), filled.sin6_addr.s6_addr, bytes.size());
    return IpAddress(bytes, filled.sin6_scope_id);
  }
  return {};
}

}  // namespace cms
