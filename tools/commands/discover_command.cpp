// orvanta discover: the ONVIF devices of the network.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "cms/ipcam/camera_probe.h"
#include "cms/ipcam/config_utility.h"
#include "tools/commands/command.h"
#include "tools/support/camera_site.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

constexpr int kListening = 25;  // seconds

struct DiscoverArguments {
  std::string target;
  double probe = 0;  // seconds; 0: as ever
  bool json = false;
};

nlohmann::ordered_json DeviceJson(const cms::stDiscoveredDevice& device) {
  nlohmann::ordered_json json{{"address", device.address},
                              {"port", device.port},
                              {"hardware", device.hardware},
                              {"name", device.name},
                              {"type", device.type}};
  if (device.tls) {  // as HOST of the other commands
    json["host"] = "https://" + device.address + ":" + device.port;
  }
  return json;
}

// Prints each as it is found.
int Probe(const DiscoverArguments& arguments) {
  nlohmann::ordered_json devices = nlohmann::ordered_json::array();
  std::string error;
  const bool asked = cms::ProbeForCameras(
      {arguments.target, static_cast<int>(arguments.probe * 1000), StopDescriptor()},
      [&](const cms::stDiscoveredDevice& device) {
        devices.push_back(DeviceJson(device));
        if (!arguments.json) {
          PrintAnswer({{device.address + ":" + device.port, devices.back()}}, false);
        }
      },
      error);
  if (!asked) {
    throw std::runtime_error(error);
  }
  if (arguments.json) {
    PrintAnswer({{"devices", devices}}, true);
  }
  return 0;
}

int Discover(const DiscoverArguments& arguments) {
  CIPCAM_Config_Utility utility;
  {
    const CameraWait wait(utility, kListening);
    if (!utility.DoONVIFDeviceDiscovery(arguments.target)) {
      throw std::runtime_error(utility.LastError());
    }
  }
  nlohmann::ordered_json devices = nlohmann::ordered_json::array();
  for (const cms::stDiscoveredDevice& each : utility.DiscoveredDevices()) {
    devices.push_back(DeviceJson(each));
  }
  PrintAnswer({{"devices", devices}}, arguments.json);
  return 0;
}

}  // namespace

void AddDiscoverCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<DiscoverArguments>();
  const Command command =
      app.Add("discover", "Find ONVIF devices; listens for 25 seconds, or until Ctrl-C");
  command
      .AddOption("--target", arguments->target,
                 "Ask this address only, instead of the whole network")
      .IPv4()
      .TypeName("ADDRESS");
  command
      .AddOption("--probe", arguments->probe,
                 "Listen for so many seconds, ask by every interface, print each as it is found")
      .TypeName("S")
      .InRange(0.1, 86'400.0);
  command.AddFlag("--json", arguments->json, "Print one JSON object");
  command.Run([arguments, &result] {
    result.status = arguments->probe > 0 ? Probe(*arguments) : Discover(*arguments);
  });
}

}  // namespace tools
