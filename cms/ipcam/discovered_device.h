// What discovery finds.
#pragma once

#include <string>

namespace cms {

// One device that answered. UTF-8 texts from the network: anything may stand in them.
struct stDiscoveredDevice {
  std::string address;
  std::string port;
  std::string hardware;
  std::string name;
  std::string type;  // "PTZ", or what `hardware` says
  bool tls = false;  // it is asked over HTTPS; only ProbeForCameras finds such
};

}  // namespace cms
