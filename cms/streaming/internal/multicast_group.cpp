#include "cms/streaming/internal/multicast_group.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "cms/net/internal/socket_address.h"
#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

// The interface that has this address, 0 when none has.
unsigned InterfaceOf(const IpAddress& local) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return 0;
  }
  unsigned found = 0;
  for (const ifaddrs* each = list; each != nullptr && found == 0; each = each->ifa_next) {
    if (each->ifa_addr == nullptr) {
      continue;
    }
    SocketAddress address;
    const int family = each->ifa_addr->sa_family;
    if (family == AF_INET || family == AF_INET6) {
      std::memcpy(&address.storage, each->ifa_addr,
                  family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
      found = address.Address() == local ? if_nametoindex(each->ifa_name) : 0;
    }
  }
  freeifaddrs(list);
  return found;
}

class GroupSocket {
 public:
  GroupSocket() = default;
  ~GroupSocket() {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  GroupSocket(const GroupSocket&) = delete;
  GroupSocket& operator=(const GroupSocket&) = delete;

  // Several that watch on this host share the port; what is sent to other groups is not theirs.
  bool Open(const IpAddress& group, std::uint16_t port) {
    descriptor_ = socket(FamilyOf(group), SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const SocketAddress address(group, port);
    const int on = 1;
    return descriptor_ >= 0 &&
           setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           bind(descriptor_, address.Pointer(), address.size) == 0;
  }

  bool Join(const IpAddress& group, unsigned interface, std::span<const IpAddress> senders) const {
    const int level = group.IsV6() ? IPPROTO_IPV6 : IPPROTO_IP;
    return std::all_of(senders.begin(), senders.end(), [&](const IpAddress& sender) {
      group_source_req request{};
      request.gsr_interface = interface;
      const SocketAddress groupAddress(group, 0);
      const SocketAddress sourceAddress(sender, 0);
      std::memcpy(&request.gsr_group, &groupAddress.storage, groupAddress.size);
      std::memcpy(&request.gsr_source, &sourceAddress.storage, sourceAddress.size);
      return setsockopt(descriptor_, level, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request) == 0;
    });
  }

  // Reports go out on the same interface, as far as the camera's packets come.
  void SendFrom(const IpAddress& group, unsigned interface, int hops) const {
    const int number = static_cast<int>(interface);
    if (group.IsV6()) {
      setsockopt(descriptor_, IPPROTO_IPV6, IPV6_MULTICAST_IF, &number, sizeof number);
      if (hops > 0) {
        setsockopt(descriptor_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
      }
      return;
    }
    ip_mreqn request{};
    request.imr_ifindex = number;
    setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request);
    if (hops > 0) {
      setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
    }
  }

  int Release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

}  // namespace

IpAddress MulticastOf(std::string_view description) {
  std::string_view line;
  while (TakeLine(description, line)) {
    std::string_view version;
    std::string_view text;
    TextScanner scan(line);
    if (!scan.Literal("c=IN ").Word(version, 3).Word(text, kMaxSDPLine).Matched()) {
      continue;
    }
    const auto address = IpAddress::Parse(std::string(text.substr(0, text.find('/'))));
    if (address && address->IsMulticast()) {
      return *address;
    }
  }
  return {};
}

StreamFailure JoinMulticast(const MulticastGroup& group, const IpAddress& local,
                            std::span<const IpAddress> senders, _RTSPSUBSESSION_CONFIG& config) {
  const unsigned interface = InterfaceOf(local);
  const std::string name = group.address.Text() + " port " + std::to_string(group.rtpPort);
  GroupSocket rtp;
  GroupSocket rtcp;
  for (const auto& [socket, port] :
       {std::pair{&rtp, group.rtpPort}, std::pair{&rtcp, group.rtcpPort}}) {
    if (!socket->Open(group.address, port) || !socket->Join(group.address, interface, senders)) {
      return {ConnectionFault::kOutOfResources,
              "cannot join the multicast group " + name + ": " + std::strerror(errno)};
    }
    socket->SendFrom(group.address, interface, group.hops);
  }
  config.clientRtpPort = group.rtpPort;
  config.clientRtcpPort = group.rtcpPort;
  config.serverRtpPort = group.rtpPort;
  config.serverRtcpPort = group.rtcpPort;
  config.rtpSocket = rtp.Release();
  config.rtcpSocket = rtcp.Release();
  return {};
}

}  // namespace cms
