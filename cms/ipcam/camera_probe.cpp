#include "cms/ipcam/camera_probe.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "cms/ipcam/internal/discovery_message.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::uint64_t kProbeAgainMs = 1'000;
constexpr std::size_t kMostFound = 16'384;
constexpr std::size_t kLargestDatagram = 65'536;

// A socket that asks by one interface.
class ProbeSocket {
 public:
  explicit ProbeSocket(const in_addr* interface)
      : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (interface != nullptr) {
      setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, interface, sizeof *interface);
    }
  }
  ~ProbeSocket() {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  ProbeSocket(const ProbeSocket&) = delete;
  ProbeSocket& operator=(const ProbeSocket&) = delete;

  int Descriptor() const { return descriptor_; }
  bool Send(const std::string& message, const sockaddr_in& to) const {
    return sendto(descriptor_, message.data(), message.size(), 0,
                  reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
  }

 private:
  const int descriptor_;
};
using ProbeSockets = std::vector<std::unique_ptr<ProbeSocket>>;

ProbeSockets SocketsOfAllInterfaces() {
  ProbeSockets sockets;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    for (const ifaddrs* each = list; each != nullptr; each = each->ifa_next) {
      constexpr unsigned kUsable = IFF_UP | IFF_MULTICAST;
      if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET &&
          (each->ifa_flags & kUsable) == kUsable) {
        sockaddr_in address{};
        std::memcpy(&address, each->ifa_addr, sizeof address);
        sockets.push_back(std::make_unique<ProbeSocket>(&address.sin_addr));
      }
    }
    freeifaddrs(list);
  }
  return sockets;
}

}  // namespace

bool ProbeForCameras(const CameraProbe& probe,
                     const std::function<void(const stDiscoveredDevice&)>& onFound,
                     std::string& error) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kDiscoveryPort);
  const char* address = probe.target.empty() ? kDiscoveryGroup : probe.target.c_str();
  if (inet_pton(AF_INET, address, &to.sin_addr) != 1) {
    error = "discovery: not an IPv4 address: " + probe.target;
    return false;
  }
  ProbeSockets sockets = probe.target.empty() ? SocketsOfAllInterfaces() : ProbeSockets();
  if (sockets.empty()) {
    sockets.push_back(std::make_unique<ProbeSocket>(nullptr));
  }
  const std::string message =
      ProbeMessage(Utf8FromWide(RandomUuid().substr(std::wstring_view(L"urn:uuid:").size())));
  const auto ask = [&] {
    return std::ranges::count_if(sockets,
                                 [&](const auto& each) { return each->Send(message, to); });
  };
  if (ask() == 0) {
    error = std::string("discovery: the probe cannot be sent to ") + address + ": " +
            std::strerror(errno);
    return false;
  }
  std::vector<pollfd> waited;
  for (const auto& each : sockets) {
    waited.push_back({.fd = each->Descriptor(), .events = POLLIN, .revents = 0});
  }
  waited.push_back({.fd = probe.interrupt, .events = POLLIN, .revents = 0});
  const auto answer = std::make_unique_for_overwrite<char[]>(kLargestDatagram);
  std::vector<stDiscoveredDevice> found;
  const std::uint64_t begin = TickMilliseconds();
  const std::uint64_t end = begin + static_cast<std::uint64_t>(std::max(probe.milliseconds, 0));
  bool asked = false;  // a second time
  for (std::uint64_t now = begin; now < end; now = TickMilliseconds()) {
    if (!asked && now - begin >= kProbeAgainMs) {
      asked = true;
      ask();
    }
    const std::uint64_t wake = asked ? end : std::min(end, begin + kProbeAgainMs);
    if (poll(waited.data(), waited.size(), static_cast<int>(wake - now)) <= 0) {
      continue;
    }
    if (waited.back().revents != 0) {
      break;
    }
    for (const auto& each : sockets) {
      const ssize_t size = recv(each->Descriptor(), answer.get(), kLargestDatagram, 0);
      if (size <= 0) {
        continue;
      }
      for (const std::string_view match :
           SplitProbeMatches({answer.get(), static_cast<std::size_t>(size)})) {
        const auto device = ParseProbeMatch(match, true);
        if (!device || found.size() == kMostFound ||
            std::ranges::any_of(found, [&device](const stDiscoveredDevice& known) {
              return known.address == device->address && known.port == device->port;
            })) {
          continue;
        }
        found.push_back(*device);
        onFound(*device);
      }
    }
  }
  return true;
}

}  // namespace cms
