// What a client's configuration says about where to connect to, and what to ask for there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cms/net/tls_parameters.h"
#include "cms/streaming/rtsp_client.h"

namespace cms {

// Made once of a configuration and never changed: openings share it, whatever is configured
// meanwhile.
struct RTSPTarget {
  stRTSPClientConfig config;  // with the URL's credentials, when it had none of its own
  bool usable = false;
  std::string url;   // as it stands in the requests
  std::string host;  // a name or an address; empty while there is none
  std::uint16_t port = 554;
  std::optional<TlsParameters> tls;  // of rtsps://
  // As configured. The one in `config` is another once a camera that was asked for UDP refused it,
  // or sent nothing that arrived.
  int askedTransport = kRtspTransportUdp;

  std::string HostAndPort() const;  // as a URL has them

  bool HasCredentials() const { return !config.user.empty(); }
  bool MayChangeTransport() const {
    return config.todaysCameras &&
           (askedTransport == kRtspTransportUdp || askedTransport == cms::kRtspTransportMulticast);
  }
  // Whether the password may be sent as good as it is.
  bool MayUseBasic() const { return tls || config.allowBasic || !config.todaysCameras; }
};

// What cannot be used says why in *problem.
RTSPTarget TargetOf(const stRTSPClientConfig& config, std::string* problem);

}  // namespace cms
