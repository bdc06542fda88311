// How a camera is reached: its addresses, and what lies between its port and RTSP.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/net/tls_parameters.h"
#include "cms/runtime/ip_address.h"

namespace cms {

struct CameraRoute {
  std::vector<IpAddress> addresses;  // tried one after the other
  std::uint16_t port = 0;
  std::optional<TlsParameters> tls;  // nothing: plain TCP
  int connectTimeoutMs = 0;          // for all addresses together, the TLS handshake included
  int group = 0;                     // key of the I/O threads
};

}  // namespace cms
