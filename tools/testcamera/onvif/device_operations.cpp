// The device service, but for what sets the network: who the camera is, what it can do, its clock.
#include <glib.h>

#include <stdexcept>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/onvif/operations.h"

namespace testcamera {
namespace {

void AddTime(Element parent, const char* name, GDateTime* time) {
  Element element = parent.Add(name);
  Element clock = element.Add("tt:Time");
  clock.Add("tt:Hour", g_date_time_get_hour(time));
  clock.Add("tt:Minute", g_date_time_get_minute(time));
  clock.Add("tt:Second", g_date_time_get_second(time));
  Element date = element.Add("tt:Date");
  date.Add("tt:Year", g_date_time_get_year(time));
  date.Add("tt:Month", g_date_time_get_month(time));
  date.Add("tt:Day", g_date_time_get_day_of_month(time));
}

void GetSystemDateAndTime(Call& call) {
  const DateTimePtr utc = call.camera.clock.Utc();
  const DateTimePtr local = call.camera.clock.Local();
  Element time = call.answer.Add("tds:SystemDateAndTime");
  time.Add("tt:DateTimeType", "Manual");
  time.Add("tt:DaylightSavings", g_date_time_is_daylight_savings(local.get()) != FALSE);
  time.Add("tt:TimeZone").Add("tt:TZ", call.camera.clock.Zone());
  AddTime(time, "tt:UTCDateTime", utc.get());
  AddTime(time, "tt:LocalDateTime", local.get());
}

void SetSystemDateAndTime(Call& call) {
  if (const auto zone = TextAt(call.request, "TimeZone/TZ"); zone && !zone->empty()) {
    try {
      call.camera.clock.SetZone(*zone);
    } catch (const std::runtime_error& error) {
      throw SoapFault{"ter:InvalidArgVal", "ter:InvalidTimeZone", error.what()};
    }
  }
  const xmlNode* utc = Find(call.request, "UTCDateTime");
  if (utc == nullptr) {
    return;
  }
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  ReadNumber(utc, "Date/Year", 1970, 2037, &year);
  ReadNumber(utc, "Date/Month", 1, 12, &month);
  ReadNumber(utc, "Date/Day", 1, 31, &day);
  ReadNumber(utc, "Time/Hour", 0, 23, &hour);
  ReadNumber(utc, "Time/Minute", 0, 59, &minute);
  ReadNumber(utc, "Time/Second", 0, 60, &second);
  const DateTimePtr time(g_date_time_new_utc(year, month, day, hour, minute, second));
  if (time == nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:InvalidDateTime", "There is no such time"};
  }
  call.camera.clock.SetOffset(g_date_time_to_unix(time.get()) - g_get_real_time() / G_USEC_PER_SEC);
}

void GetDeviceInformation(Call& call) {
  call.answer.Add("tds:Manufacturer", "Orvanta");
  call.answer.Add("tds:Model", call.camera.settings.others["Brand.ProdShortName"]);
  call.answer.Add("tds:FirmwareVersion",
                  call.camera.settings.others["Properties.Firmware.Version"]);
  call.answer.Add("tds:SerialNumber", call.camera.serial);
  call.answer.Add("tds:HardwareId", "ORV-TC1");
}

void GetCapabilities(Call& call) {
  Element capabilities = call.answer.Add("tds:Capabilities");
  Element device = capabilities.Add("tt:Device");
  device.Add("tt:XAddr", call.onvif + "device_service");
  Element network = device.Add("tt:Network");
  for (const char* name : {"tt:IPFilter", "tt:ZeroConfiguration", "tt:IPVersion6", "tt:DynDNS"}) {
    network.Add(name, false);
  }
  Element system = device.Add("tt:System");
  for (const char* name : {"tt:DiscoveryResolve", "tt:DiscoveryBye", "tt:RemoteDiscovery",
                           "tt:SystemBackup", "tt:SystemLogging", "tt:FirmwareUpgrade"}) {
    system.Add(name, false);
  }
  Element version = system.Add("tt:SupportedVersions");
  version.Add("tt:Major", 2);
  version.Add("tt:Minor", 40);
  Element events = capabilities.Add("tt:Events");
  events.Add("tt:XAddr", call.onvif + "events");
  events.Add("tt:WSSubscriptionPolicySupport", false);
  events.Add("tt:WSPullPointSupport", true);
  events.Add("tt:WSPausableSubscriptionManagerInterfaceSupport", false);
  capabilities.Add("tt:Imaging").Add("tt:XAddr", call.onvif + "imaging_service");
  Element media = capabilities.Add("tt:Media");
  media.Add("tt:XAddr", call.onvif + "media_service");
  Element streaming = media.Add("tt:StreamingCapabilities");
  streaming.Add("tt:RTPMulticast", false);
  streaming.Add("tt:RTP_TCP", call.camera.camera.tcp);
  streaming.Add("tt:RTP_RTSP_TCP", call.camera.camera.tcp);
  if (call.camera.camera.ptz) {
    capabilities.Add("tt:PTZ").Add("tt:XAddr", call.onvif + "ptz_service");
  }
}

void GetServices(Call& call) {
  std::vector<std::pair<const char*, const char*>> services = {{kDeviceSpace, "device_service"},
                                                               {kMediaSpace, "media_service"},
                                                               {kImagingSpace, "imaging_service"},
                                                               {kEventsSpace, "events"}};
  if (call.camera.onvif.media2) {
    services.emplace_back(kMedia2Space, "media2_service");
  }
  if (call.camera.camera.ptz) {
    services.emplace_back(kPtzSpace, "ptz_service");
  }
  for (const auto& [space, path] : services) {
    Element service = call.answer.Add("tds:Service");
    service.Add("tds:Namespace", space);
    service.Add("tds:XAddr", call.onvif + path);
    Element version = service.Add("tds:Version");
    version.Add("tt:Major", 2);
    version.Add("tt:Minor", 40);
  }
}

void GetServiceCapabilities(Call& call) {
  Element capabilities = call.answer.Add("tds:Capabilities");
  capabilities.Add("tds:Network").Attribute("NTP", "1");
  capabilities.Add("tds:Security")
      .Attribute("UsernameToken", "true")
      .Attribute("HttpDigest", "false");
  capabilities.Add("tds:System").Attribute("DiscoveryBye", "false");
}

void GetScopes(Call& call) {
  for (const std::string& scope : Scopes(call.camera)) {
    Element element = call.answer.Add("tds:Scopes");
    element.Add("tt:ScopeDef", "Fixed");
    element.Add("tt:ScopeItem", scope);
  }
}

// The zone and the clock stay as they are.
void SetSystemFactoryDefault(Call& call) {
  std::string kind;
  ReadWord(call.request, "FactoryDefault", {"Hard", "Soft"}, &kind);
  const Network network = call.camera.settings.network;
  call.camera.Reset();
  if (kind == "Soft") {  // the camera stays reachable
    call.camera.settings.network = network;
  }
}

void SetUser(Call& call) {
  const xmlNode* user = Child(call.request, "User");
  if (TextAt(user, "Username") != call.camera.camera.user) {
    throw SoapFault{"ter:InvalidArgVal", "ter:UsernameMissing", "There is no such user"};
  }
  Read(user, "Password", &call.camera.password);
}

void GetRelayOutputs(Call& call) {
  Element relay = call.answer.Add("tds:RelayOutputs").Attribute("token", "Relay0");
  Element properties = relay.Add("tt:Properties");
  properties.Add("tt:Mode", "Bistable");
  properties.Add("tt:DelayTime", "PT0S");
  properties.Add("tt:IdleState", call.camera.relayActive ? "open" : "closed");
}

void SetRelayOutputState(Call& call) {
  if (TextAt(call.request, "RelayOutputToken") != "Relay0") {
    throw SoapFault{"ter:InvalidArgVal", "ter:RelayToken", "There is no such relay"};
  }
  std::string state = "inactive";
  ReadWord(call.request, "LogicalState", {"active", "inactive"}, &state);
  call.camera.relayActive = state == "active";
}

void GetUsers(Call& call) {
  Element user = call.answer.Add("tds:User");
  user.Add("tt:Username", call.camera.camera.user);
  user.Add("tt:UserLevel", "Administrator");
}

}  // namespace

// ONVIF core, section 7.3.2.2; what names the camera is escaped as in a URI.
std::vector<std::string> Scopes(CameraState& camera) {
  const std::string scope = "onvif://www.onvif.org/";
  const TextPtr model(
      g_uri_escape_string(camera.settings.others["Brand.ProdShortName"].c_str(), nullptr, FALSE));
  std::vector<std::string> scopes = {scope + "type/video_encoder", scope + "Profile/Streaming",
                                     scope + "location/country/testland",
                                     scope + "hardware/ORV-TC1"};
  if (!camera.onvif.style.sparse) {
    scopes.push_back(scope + "name/" + model.get());
  }
  if (camera.camera.ptz) {
    scopes.push_back(scope + "type/ptz");
  }
  return scopes;
}

void AddDeviceOperations(Operations* operations) {
  const auto add = [operations](const char* name, void (*run)(Call&), bool open = false) {
    (*operations)[{kDeviceSpace, name}] = {open, run};
  };
  add("GetSystemDateAndTime", GetSystemDateAndTime, true);
  add("GetCapabilities", GetCapabilities, true);
  add("GetServices", GetServices, true);
  add("GetServiceCapabilities", GetServiceCapabilities, true);
  add("SetSystemDateAndTime", SetSystemDateAndTime);
  add("GetDeviceInformation", GetDeviceInformation);
  add("GetScopes", GetScopes);
  add("GetUsers", GetUsers);
  add("SetUser", SetUser);
  add("GetRelayOutputs", GetRelayOutputs);
  add("SetRelayOutputState", SetRelayOutputState);
  add("SetSystemFactoryDefault", SetSystemFactoryDefault);
  add("SystemReboot", [](Call& call) { call.answer.Add("tds:Message", "Rebooting"); });
}

}  // namespace testcamera
