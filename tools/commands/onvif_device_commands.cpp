#include "tools/commands/onvif_device_commands.h"

#include <ctime>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_device_jobs.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct DeviceArguments {
  std::string time;
  std::string zone;
  bool ntp = false;
  bool dhcp = false;
  bool yes = false;
  std::string name;
  std::string value;
  std::vector<std::string> servers;
};

using DeviceSite = OnvifSite<cms::OnvifDeviceJobs>;

Json SetClock(DeviceSite& site, const DeviceArguments& arguments) {
  if (arguments.ntp) {
    site.Require(site->SetClockByNtp(arguments.zone));
    return {{"DateTimeType", "NTP"}};
  }
  const std::int64_t time =
      arguments.time.empty() ? std::time(nullptr) : ReadTime("--time", arguments.time);
  site.Require(site->SetClock(time, arguments.zone));
  return {{"DateTimeType", "Manual"}, {"UTCDateTime", UtcTime(time)}};
}

Json ReadNtp(DeviceSite& site, const DeviceArguments&) {
  cms::OnvifNtp ntp;
  site.Require(site->ReadNtp(ntp));
  return {{"FromDHCP", ntp.fromDhcp}, {"Servers", ntp.servers}};
}

Json SetNtp(DeviceSite& site, const DeviceArguments& arguments) {
  if (arguments.dhcp == !arguments.servers.empty()) {
    throw UsageError("set-ntp", "say either --dhcp or the servers");
  }
  site.Require(site->SetNtp({arguments.dhcp, arguments.servers}));
  return ReadNtp(site, arguments);
}

Json ListCameraUsers(DeviceSite& site, const DeviceArguments&) {
  std::vector<cms::OnvifUser> users;
  site.Require(site->ReadUsers(users));
  Json list = Json::array();
  for (const cms::OnvifUser& each : users) {
    list.push_back({{"Username", each.name}, {"UserLevel", each.level}});
  }
  return {{"Users", list}};
}

Json SetPassword(DeviceSite& site, const DeviceArguments& arguments) {
  site.Require(site->SetPassword(arguments.name, arguments.value));
  return {{"Username", arguments.name}};
}

Json Relays(DeviceSite& site, const DeviceArguments&) {
  std::vector<cms::OnvifRelay> relays;
  site.Require(site->ReadRelays(relays));
  Json list = Json::array();
  for (const cms::OnvifRelay& each : relays) {
    list.push_back({{"token", each.token}, {"Mode", each.mode}, {"IdleState", each.idleState}});
  }
  return {{"RelayOutputs", list}};
}

Json SetRelay(DeviceSite& site, const DeviceArguments& arguments) {
  const bool active = arguments.value == "on";
  site.Require(site->SetRelay(arguments.name, active));
  return {{"RelayOutputToken", arguments.name}, {"LogicalState", active ? "active" : "inactive"}};
}

Json HostName(DeviceSite& site, const DeviceArguments&) {
  std::string name;
  site.Require(site->ReadHostName(name));
  return {{"Name", name}};
}

Json SetHostName(DeviceSite& site, const DeviceArguments& arguments) {
  site.Require(site->SetHostName(arguments.name));
  return HostName(site, arguments);
}

Json Reboot(DeviceSite& site, const DeviceArguments& arguments) {
  if (!arguments.yes) {
    throw UsageError("reboot", "the camera is away for a while; say --yes");
  }
  site.Require(site->Reboot());
  return {{"Reboot", true}};
}

}  // namespace

void AddOnvifDeviceCommands(Command onvif, const SiteArguments& site, CommandResult& result) {
  auto arguments = std::make_shared<DeviceArguments>();
  const auto add = [&](const char* name, const char* help,
                       Json (*run)(DeviceSite&, const DeviceArguments&)) {
    const Command command = onvif.Add(name, help);
    command.RunWithParent([&site, arguments, run, &result] {
      DeviceSite device(AccessOf(site));
      PrintAnswer(run(device, *arguments), site.json);
      result.status = 0;
    });
    return command;
  };
  Command command = add("set-clock", "Sets the camera's clock to ours", SetClock);
  const Option time = command.AddOption("--time", arguments->time, "To another time than now");
  command.AddFlag("--ntp", arguments->ntp, "From now on by its NTP servers").Excludes(time);
  command.AddOption("--zone", arguments->zone,
                    "Its time zone, as in POSIX's TZ: CET-1CEST,M3.5.0,M10.5.0/3");
  add("ntp", "Where the camera asks for the time", ReadNtp);
  command = add("set-ntp", "Sets that", SetNtp);
  command.AddOption("servers", arguments->servers, "Names or addresses").TypeName("SERVER");
  command.AddFlag("--dhcp", arguments->dhcp, "As its network says");
  add("users", "Who may log in", ListCameraUsers);
  command = add("set-password", "Sets a user's password", SetPassword);
  command.AddOption("name", arguments->name).Required().TypeName("NAME");
  command.AddOption("new-password", arguments->value).Required().TypeName("NEW");
  add("relays", "The relay outputs", Relays);
  command = add("set-relay", "Switches one", SetRelay);
  command.AddOption("token", arguments->name).Required().TypeName("TOKEN");
  command.AddOption("state", arguments->value).Required().OneOf({"on", "off"});
  add("hostname", "The camera's name in its network", HostName);
  command = add("set-hostname", "Sets it", SetHostName);
  command.AddOption("name", arguments->name).Required().TypeName("NAME");
  add("reboot", "Starts the camera anew", Reboot).AddFlag("--yes", arguments->yes, "Yes, do it");
}

}  // namespace tools
