// How CIPCAM_Config_Utility finds cameras.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/internal/discovery_message.h"
#include "cms/runtime/clock.h"

namespace {

constexpr std::uint64_t kListeningMs = 100 * 250;
// The largest datagram: dozens of namespaces in front put a device's address beyond 3,000 bytes.
constexpr std::size_t kMaxAnswer = 65536;
constexpr int kMaxAnswersAtOnce = 1000;
constexpr std::size_t kMaxDevices = 16384;
// Room for some thousand answers at once; the kernel grants what it is allowed to.
constexpr int kReceiveBuffer = 8 << 20;

std::string SystemError(const char* what) {
  return std::string("discovery: ") + what + ": " + std::strerror(errno);
}

// An open descriptor, closed at the end.
struct Socket {
  Socket() : descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  const int descriptor;
};

}  // namespace

void CIPCAM_Config_Utility::OnDeviceFound(const cms::stDiscoveredDevice& /*device*/) {}

bool CIPCAM_Config_Utility::DoONVIFDeviceDiscovery(const std::string& target) {
  const auto fail = [this](std::string what) {
    error_ = std::move(what);
    result_ = cms::kHttpCommandFailed;
    return false;
  };
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(cms::kDiscoveryPort);
  if (inet_pton(AF_INET, target.empty() ? cms::kDiscoveryGroup : target.c_str(), &to.sin_addr) !=
      1) {
    return fail("discovery: not an IPv4 address: " + target);
  }
  const Socket socket;
  const int on = 1;
  if (socket.descriptor < 0 ||
      setsockopt(socket.descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
    return fail(SystemError("no socket"));
  }
  // Devices answer all at once. The first option goes beyond the system's limit where it may.
  if (setsockopt(socket.descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                 sizeof kReceiveBuffer) != 0) {
    setsockopt(socket.descriptor, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  }
  const std::string probe =
      cms::ProbeMessage(cms::ProbeMessageId(cms::WallSeconds(), messageIdEnd_));
  if (sendto(socket.descriptor, probe.data(), probe.size(), 0,
             reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
    return fail(SystemError("the probe cannot be sent"));
  }
  DoRecvResult(socket.descriptor);
  return Succeed();
}

void CIPCAM_Config_Utility::DoRecvResult(int socket) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
  std::array<pollfd, 2> waited{{{.fd = socket, .events = POLLIN, .revents = 0},
                                {.fd = interrupt_.Descriptor(), .events = POLLIN, .revents = 0}}};
  const std::uint64_t end = cms::TickMilliseconds() + kListeningMs;
  const auto answer = std::make_unique_for_overwrite<char[]>(kMaxAnswer);
  for (std::uint64_t now = cms::TickMilliseconds(); now < end; now = cms::TickMilliseconds()) {
    const int ready = poll(waited.data(), waited.size(), static_cast<int>(end - now));
    if (ready > 0 && waited[1].revents != 0) {
      return;
    }
    // All that waits, as more may come than the buffer holds; yet a flood does not keep us here. An
    // error of an earlier datagram, such as a refused port, ends nothing.
    for (int i = 0; ready > 0 && i < kMaxAnswersAtOnce; ++i) {
      const ssize_t size = recv(socket, answer.get(), kMaxAnswer, 0);
      if (size < 0) {
        break;
      }
      ParserONVIFDiscoveryInfo({answer.get(), static_cast<std::size_t>(size)});
    }
  }
}

bool CIPCAM_Config_Utility::ParserONVIFDiscoveryInfo(std::string_view answer) {
  bool added = false;
  for (const std::string_view match : cms::SplitProbeMatches(answer)) {
    const std::optional<cms::stDiscoveredDevice> device = cms::ParseProbeMatch(match, false);
    if (!device || devices_.size() == kMaxDevices ||
        std::ranges::any_of(devices_, [&device](const cms::stDiscoveredDevice& known) {
          return known.address == device->address && known.port == device->port;
        })) {
      continue;
    }
    devices_.push_back(*device);
    OnDeviceFound(*device);
    added = true;
  }
  return added;
}
