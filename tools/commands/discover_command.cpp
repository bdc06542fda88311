// orvanta discover: the ONVIF devices of the network.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "cms/ipcam/config_utility.h"
#include "tools/commands/command.h"
#include "tools/support/camera_site.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

constexpr int kListening = 25;  // seconds

struct Arguments {
  std::string target;
  bool json = false;
};

int Discover(const Arguments& arguments) {
  CIPCAM_Config_Utility utility;
  {
    const CameraWait wait(utility, kListening);
    if (!utility.DoONVIFDeviceDiscovery(arguments.target)) {
      throw std::runtime_error(utility.LastError());
    }
  }
  nlohmann::ordered_json devices = nlohmann::ordered_json::array();
  for (const stDiscoveredDevice& each : utility.DiscoveredDevices()) {
    devices.push_back({{"address", each.address},
                       {"port", each.port},
                       {"hardware", each.hardware},
                       {"name", each.name},
                       {"type", each.type}});
  }
  PrintAnswer({{"devices", devices}}, arguments.json);
  return 0;
}

}  // namespace

void AddDiscoverCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<Arguments>();
  const Command command =
      app.Add("discover", "Find ONVIF devices; listens for 25 seconds, or until Ctrl-C");
  command
      .AddOption("--target", arguments->target,
                 "Ask this address only, instead of the whole network")
      .IPv4()
      .TypeName("ADDRESS");
  command.AddFlag("--json", arguments->json, "Print one JSON object");
  command.Run([arguments, &result] { result.status = Discover(*arguments); });
}

}  // namespace tools
