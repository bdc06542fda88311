// What a client's configuration says about where to connect to, and what to ask for there.
#pragma once

#include <cstdint>
#include <string>

#include "cms/streaming/rtsp_client.h"

namespace cms {

// Made once of a configuration and never changed: openings share it, whatever is configured
// meanwhile.
struct RTSPTarget {
  stRTSPClientConfig config;  // with the URL's credentials, when it had none of its own
  bool usable = false;
  std::string url;   // as it stands in the requests
  std::string host;  // a name or a dotted address; empty while there is none
  std::uint16_t port = 554;

  bool HasCredentials() const { return !config.user.empty(); }
};

// What cannot be used says why in *problem.
RTSPTarget TargetOf(const stRTSPClientConfig& config, std::string* problem);

}  // namespace cms
