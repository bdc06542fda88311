// ICMP echo: is there a machine at an address?
#pragma once

#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

namespace cms {

enum class IcmpEchoStatus : int {
  kAnswered = 0,
  kTimedOut = 1,
  kUnreachable = 2,   // a router, or this machine itself, says so
  kNotPermitted = 3,  // the system lets this process send no echo requests
  kFailed = 4,        // anything else; also a wrong call
};

struct IcmpEchoResult {
  IcmpEchoStatus status = IcmpEchoStatus::kFailed;
  int microseconds = 0;  // from the request to the answer
  int ttl = 0;           // hops that the answer had left, 0 when the system did not say
  std::string error;     // one line with the address, empty when answered
};

// Sends one echo request (RFC 792) with `payload` bytes (16 to 65,507; others are brought there) to
// an IPv4 address in host byte order, and waits for its answer. It needs no privileges where
// the kernel's net.ipv4.ping_group_range holds one of the process's groups, and CAP_NET_RAW
// elsewhere. Any thread may call it; it blocks for at most the time-out.
CMS_API IcmpEchoResult IcmpEcho(std::uint32_t address, int payload, int timeoutMilliseconds);

}  // namespace cms
