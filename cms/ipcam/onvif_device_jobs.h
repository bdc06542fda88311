// OnvifDeviceJobs: what installers do at a camera beside its streams.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/onvif_connection.h"
#include "cms/runtime/api.h"

namespace cms {

struct OnvifUser {
  std::string name;
  std::string level;  // "Administrator", "Operator", "User", "Anonymous"
};

struct OnvifRelay {
  std::string token;
  std::string mode;       // "Monostable", "Bistable"
  std::string idleState;  // "closed", "open"
};

struct OnvifNtp {
  bool fromDhcp = false;
  std::vector<std::string> servers;  // names and addresses
};

class CMS_API OnvifDeviceJobs : public OnvifConnection {
 public:
  explicit OnvifDeviceJobs(const OnvifAccess& access);

  // Seconds since 1970-01-01 UTC; a zone as in POSIX's TZ ("CET-1CEST,M3.5.0,M10.5.0/3"), or empty
  // to leave the camera's.
  bool SetClock(std::int64_t seconds, const std::string& zone);
  // From now on the camera asks the servers of its NTP settings.
  bool SetClockByNtp(const std::string& zone);
  bool ReadNtp(OnvifNtp& ntp);
  bool SetNtp(const OnvifNtp& ntp);

  bool ReadUsers(std::vector<OnvifUser>& users);
  // The level stays. Where the user is the object's own, another object is needed from then on.
  bool SetPassword(const std::string& user, const std::string& password);

  bool ReadRelays(std::vector<OnvifRelay>& relays);
  bool SetRelay(const std::string& token, bool active);

  bool ReadHostName(std::string& name);
  bool SetHostName(const std::string& name);

  bool Reboot();

 private:
  bool Do(std::wstring_view operation, std::wstring_view body);
  bool Read(std::wstring_view operation, std::wstring& answer);  // a question without arguments
};

}  // namespace cms
