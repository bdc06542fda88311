#include "cms/runtime/icmp_echo.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <system_error>
#include <vector>

#include "cms/runtime/address_text.h"

namespace cms {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kHeader = sizeof(icmphdr);
constexpr std::size_t kToken = 16;  // random bytes that tell our answer from all others
constexpr int kLongestPayload = 65'507;

class IcmpSocket {
 public:
  IcmpSocket() {
    constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    descriptor_ = socket(AF_INET, SOCK_DGRAM | kFlags, IPPROTO_ICMP);
    if (descriptor_ < 0 && (errno == EACCES || errno == EPERM || errno == EPROTONOSUPPORT)) {
      descriptor_ = socket(AF_INET, SOCK_RAW | kFlags, IPPROTO_ICMP);
      raw_ = true;
    }
  }
  ~IcmpSocket() {
    if (descriptor_ >= 0) {
      const int kept = errno;
      close(descriptor_);
      errno = kept;
    }
  }
  IcmpSocket(const IcmpSocket&) = delete;
  IcmpSocket& operator=(const IcmpSocket&) = delete;

  bool IsOpen() const { return descriptor_ >= 0; }

  bool Connect(std::uint32_t address) const {
    const int on = 1;  // without these two there is no TTL, and errors are told late or not at all
    setsockopt(descriptor_, IPPROTO_IP, IP_RECVTTL, &on, sizeof on);
    setsockopt(descriptor_, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(address);
    return connect(descriptor_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0;
  }

  bool Send(const std::vector<std::uint8_t>& message) const {
    return send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(message.size());
  }

  // Until there is something to receive: 1, 0 at the deadline, -1 on an error.
  int WaitUntil(SteadyClock::time_point deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
    pollfd waited{descriptor_, POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
  }

  // The bytes received, an ICMP message, and its TTL; -1 on an error.
  ssize_t Receive(std::vector<std::uint8_t>& message, int& ttl) const {
    iovec part{message.data(), message.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    ssize_t size = recvmsg(descriptor_, &header, 0);
    const cmsghdr* const told = size >= 0 ? CMSG_FIRSTHDR(&header) : nullptr;
    if (told != nullptr && told->cmsg_level == IPPROTO_IP && told->cmsg_type == IP_TTL) {
      std::memcpy(&ttl, CMSG_DATA(told), sizeof ttl);
    }
    if (raw_ && size > 0) {  // an IP header is in front
      const auto front = static_cast<ssize_t>(message[0] & 15) * 4;
      size = std::max<ssize_t>(size - front, 0);
      std::memmove(message.data(), message.data() + front, static_cast<std::size_t>(size));
    }
    return size;
  }

 private:
  int descriptor_ = -1;
  bool raw_ = false;
};

// RFC 1071.
std::uint16_t Checksum(const std::vector<std::uint8_t>& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    sum += std::uint32_t{bytes[i]} << 8 | (i + 1 < bytes.size() ? bytes[i + 1] : 0U);
  }
  while (sum > 0xFFFF) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(~sum);
}

std::vector<std::uint8_t> Request(std::size_t payload) {
  std::vector<std::uint8_t> message(kHeader + payload);
  // Identifier, sequence number and token are random; the kernel puts its own identifier there for
  // sockets without privileges.
  if (getrandom(message.data() + 4, kHeader - 4 + kToken, 0) < 0) {
    message[kHeader] = 1;
  }
  message[0] = ICMP_ECHO;
  const std::uint16_t sum = Checksum(message);
  message[2] = static_cast<std::uint8_t>(sum >> 8);
  message[3] = static_cast<std::uint8_t>(sum);
  return message;
}

bool Answers(const std::vector<std::uint8_t>& answer, std::size_t size,
             const std::vector<std::uint8_t>& request) {
  constexpr std::size_t kSequenceAt = 6;
  return size == request.size() && answer[0] == ICMP_ECHOREPLY &&
         std::equal(request.begin() + kSequenceAt, request.end(), answer.begin() + kSequenceAt);
}

bool SaysUnreachable(int error) {
  return error == EHOSTUNREACH || error == ENETUNREACH || error == ECONNREFUSED ||
         error == EHOSTDOWN || error == ENETDOWN || error == ENOPROTOOPT || error == EPROTO;
}

IcmpEchoResult Failure(IcmpEchoStatus status, std::uint32_t address, const std::string& why) {
  IcmpEchoResult result;
  result.status = status;
  result.error = "ICMP echo to " + AddressText(address) + ": " + why;
  return result;
}

IcmpEchoResult FailureOf(int error, std::uint32_t address) {
  return Failure(SaysUnreachable(error) ? IcmpEchoStatus::kUnreachable : IcmpEchoStatus::kFailed,
                 address, std::generic_category().message(error));
}

}  // namespace

IcmpEchoResult IcmpEcho(std::uint32_t address, int payload, int timeoutMilliseconds) {
  const IcmpSocket socket;
  if (!socket.IsOpen()) {
    if (errno != EPERM && errno != EACCES) {
      return FailureOf(errno, address);
    }
    return Failure(IcmpEchoStatus::kNotPermitted, address,
                   "not permitted: let net.ipv4.ping_group_range hold a group of this process, or "
                   "give it CAP_NET_RAW");
  }
  const auto size = static_cast<std::size_t>(std::clamp<int>(payload, kToken, kLongestPayload));
  const std::vector<std::uint8_t> request = Request(size);
  const auto sent = SteadyClock::now();
  const auto deadline = sent + std::chrono::milliseconds(std::max(timeoutMilliseconds, 0));
  if (!socket.Connect(address) || !socket.Send(request)) {
    return FailureOf(errno, address);
  }
  std::vector<std::uint8_t> answer(request.size() + 60);  // the longest IP header
  for (;;) {
    const int ready = socket.WaitUntil(deadline);
    if (ready == 0) {
      return Failure(IcmpEchoStatus::kTimedOut, address,
                     "no answer within " + std::to_string(timeoutMilliseconds) + " ms");
    }
    IcmpEchoResult result;
    const ssize_t received = ready > 0 ? socket.Receive(answer, result.ttl) : -1;
    if (received < 0 && errno != EAGAIN && errno != EINTR) {
      return FailureOf(errno, address);
    }
    if (received > 0 && Answers(answer, static_cast<std::size_t>(received), request)) {
      result.status = IcmpEchoStatus::kAnswered;
      result.microseconds = static_cast<int>(
          std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - sent).count());
      return result;
    }
  }
}

}  // namespace cms
