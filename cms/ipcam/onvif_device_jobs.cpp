#include "cms/ipcam/onvif_device_jobs.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "cms/ipcam/internal/onvif_bodies.h"
#include "cms/ipcam/internal/onvif_client.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

std::string LineOf(std::wstring text) {
  return Utf8FromWide(Plain(std::move(text)));
}

std::wstring Tagged(std::wstring_view name, std::wstring_view inside) {
  return L"<" + std::wstring(name) + L">" + std::wstring(inside) + L"</" + std::wstring(name) +
         L">";
}

std::wstring ZoneElement(const std::string& zone) {
  return zone.empty() ? std::wstring()
                      : Tagged(L"tds:TimeZone", Element(L"tt:TZ", WideFromUtf8(zone)));
}

std::wstring ClockBody(std::wstring_view type, const std::string& zone, std::wstring_view time) {
  return Tagged(L"tds:SetSystemDateAndTime",
                Element(L"tds:DateTimeType", type) +
                    L"<tds:DaylightSavings>false</tds:DaylightSavings>" + ZoneElement(zone) +
                    std::wstring(time));
}

std::wstring UserElement(const OnvifUser& user, const std::string& password) {
  return Tagged(L"tds:User", Element(L"tt:Username", WideFromUtf8(user.name)) +
                                 Element(L"tt:Password", WideFromUtf8(password)) +
                                 Element(L"tt:UserLevel", WideFromUtf8(user.level)));
}

// A name or an address as ONVIF's NetworkHost.
std::wstring HostElement(std::wstring_view name, const std::string& host) {
  const bool ipv6 = host.find(':') != std::string::npos;
  const bool ipv4 = !ipv6 && host.find_first_not_of("0123456789.") == std::string::npos;
  const std::wstring text = WideFromUtf8(host);
  return Tagged(name, ipv6   ? Element(L"tt:Type", L"IPv6") + Element(L"tt:IPv6Address", text)
                      : ipv4 ? Element(L"tt:Type", L"IPv4") + Element(L"tt:IPv4Address", text)
                             : Element(L"tt:Type", L"DNS") + Element(L"tt:DNSname", text));
}

std::string HostOf(std::wstring_view block) {
  for (const std::wstring_view name : {L"tt:DNSname", L"tt:IPv4Address", L"tt:IPv6Address"}) {
    if (std::wstring host = TextOf(block, name); !host.empty()) {
      return LineOf(std::move(host));
    }
  }
  return {};
}

}  // namespace

OnvifDeviceJobs::OnvifDeviceJobs(const OnvifAccess& access) : OnvifConnection(access) {}

bool OnvifDeviceJobs::Do(std::wstring_view operation, std::wstring_view body) {
  std::wstring answer;
  return Client().Call(kDeviceWsdl, operation, body, answer);
}

bool OnvifDeviceJobs::Read(std::wstring_view operation, std::wstring& answer) {
  return Client().Call(kDeviceWsdl, operation, L"<tds:" + std::wstring(operation) + L"/>", answer);
}

bool OnvifDeviceJobs::SetClock(std::int64_t seconds, const std::string& zone) {
  const std::time_t instant = seconds;
  std::tm fields{};
  if (gmtime_r(&instant, &fields) == nullptr) {
    return Client().Fail("SetSystemDateAndTime: no such time");
  }
  const auto number = [](std::wstring_view name, int value) {
    return Element(name, std::to_wstring(value));
  };
  const std::wstring time =
      Tagged(L"tt:Time", number(L"tt:Hour", fields.tm_hour) + number(L"tt:Minute", fields.tm_min) +
                             number(L"tt:Second", fields.tm_sec)) +
      Tagged(L"tt:Date", number(L"tt:Year", fields.tm_year + 1900) +
                             number(L"tt:Month", fields.tm_mon + 1) +
                             number(L"tt:Day", fields.tm_mday));
  return Do(L"SetSystemDateAndTime", ClockBody(L"Manual", zone, Tagged(L"tds:UTCDateTime", time)));
}

bool OnvifDeviceJobs::SetClockByNtp(const std::string& zone) {
  return Do(L"SetSystemDateAndTime", ClockBody(L"NTP", zone, {}));
}

bool OnvifDeviceJobs::ReadNtp(OnvifNtp& ntp) {
  std::wstring answer;
  if (!Read(L"GetNTP", answer)) {
    return false;
  }
  ntp.fromDhcp = TruthOf(answer, L"tt:FromDHCP");
  ntp.servers.clear();
  std::wstring_view rest = answer;
  const std::wstring_view name = ntp.fromDhcp ? L"tt:NTPFromDHCP" : L"tt:NTPManual";
  for (std::wstring_view one; TakeElement(rest, name, one);) {
    if (std::string host = HostOf(one); !host.empty()) {
      ntp.servers.push_back(std::move(host));
    }
  }
  return true;
}

bool OnvifDeviceJobs::SetNtp(const OnvifNtp& ntp) {
  std::wstring inside = Element(L"tds:FromDHCP", ntp.fromDhcp ? L"true" : L"false");
  for (const std::string& server : ntp.servers) {
    inside += HostElement(L"tds:NTPManual", server);
  }
  return Do(L"SetNTP", Tagged(L"tds:SetNTP", inside));
}

bool OnvifDeviceJobs::ReadUsers(std::vector<OnvifUser>& users) {
  std::wstring answer;
  if (!Read(L"GetUsers", answer)) {
    return false;
  }
  users.clear();
  std::wstring_view rest = answer;
  for (std::wstring_view one; TakeElement(rest, L"tds:User", one);) {
    users.push_back({LineOf(TextOf(one, L"tt:Username")), LineOf(TextOf(one, L"tt:UserLevel"))});
  }
  return true;
}

bool OnvifDeviceJobs::SetPassword(const std::string& user, const std::string& password) {
  std::vector<OnvifUser> users;
  if (!ReadUsers(users)) {
    return false;
  }
  const auto found = std::ranges::find(users, user, &OnvifUser::name);
  if (found == users.end()) {
    return Client().Fail("SetUser: the camera has no user " + user);
  }
  return Do(L"SetUser", Tagged(L"tds:SetUser", UserElement(*found, password)));
}

bool OnvifDeviceJobs::ReadRelays(std::vector<OnvifRelay>& relays) {
  std::wstring answer;
  if (!Read(L"GetRelayOutputs", answer)) {
    return false;
  }
  relays.clear();
  std::wstring_view rest = answer;
  for (std::wstring_view one; TakeElement(rest, L"tds:RelayOutputs", one);) {
    relays.push_back({Utf8FromWide(Token(one)), LineOf(TextOf(one, L"tt:Mode")),
                      LineOf(TextOf(one, L"tt:IdleState"))});
  }
  return true;
}

bool OnvifDeviceJobs::SetRelay(const std::string& token, bool active) {
  return Do(L"SetRelayOutputState",
            Tagged(L"tds:SetRelayOutputState",
                   Element(L"tds:RelayOutputToken", WideFromUtf8(token)) +
                       Element(L"tds:LogicalState", active ? L"active" : L"inactive")));
}

bool OnvifDeviceJobs::ReadHostName(std::string& name) {
  std::wstring answer;
  if (!Read(L"GetHostname", answer)) {
    return false;
  }
  name = LineOf(TextOf(answer, L"tt:Name"));
  return true;
}

bool OnvifDeviceJobs::SetHostName(const std::string& name) {
  return Do(L"SetHostname", Tagged(L"tds:SetHostname", Element(L"tds:Name", WideFromUtf8(name))));
}

bool OnvifDeviceJobs::Reboot() {
  return Do(L"SystemReboot", L"<tds:SystemReboot/>");
}

}  // namespace cms
