#include "cms/streaming/internal/port_pair.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>

#include "cms/net/internal/socket_address.h"

namespace cms {
namespace {

constexpr int kFirstPort = 1024;  // below are the privileged ones
constexpr int kMostDraws = 10'000;

int BindUdp(std::uint16_t port, bool ipv6) {
  const SocketAddress local(
      ipv6 ? IpAddress(std::array<std::uint8_t, 16>{}, 0) : IpAddress(INADDR_ANY), port);
  const int descriptor = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return -1;
  }
  const int on = 1;
  if (ipv6) {
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  if (bind(descriptor, local.Pointer(), local.size) != 0) {
    const int error = errno;
    close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}

}  // namespace

StreamFailure BindPortPair(_RTSPSUBSESSION_CONFIG& config, bool ipv6) {
  static thread_local std::minstd_rand random{std::random_device{}()};
  for (int draw = 0; draw < kMostDraws; ++draw) {
    const auto port = static_cast<std::uint16_t>(random() % 65535);
    if (port % 2 != 0 || port < kFirstPort) {
      continue;
    }
    const int rtp = BindUdp(port, ipv6);
    const int rtcp = rtp >= 0 ? BindUdp(static_cast<std::uint16_t>(port + 1), ipv6) : -1;
    if (rtcp >= 0) {
      config.clientRtpPort = port;
      config.clientRtcpPort = static_cast<std::uint16_t>(port + 1);
      config.rtpSocket = rtp;
      config.rtcpSocket = rtcp;
      return {};
    }
    const int error = errno;
    if (rtp >= 0) {
      close(rtp);
    }
    if (error != EADDRINUSE && error != EACCES) {
      return {ConnectionFault::kOutOfResources,
              std::string("no UDP port pair: ") + std::strerror(error)};
    }
  }
  return {ConnectionFault::kOutOfResources, "no free UDP port pair found"};
}

}  // namespace cms
