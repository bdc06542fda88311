// The check of WS-Security UsernameTokens (OASIS Username Token Profile 1.0) on the camera's clock.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "tools/testcamera/onvif/soap.h"

namespace testcamera {

class UsernameTokenCheck {
 public:
  // A created time may be `window` seconds off.
  UsernameTokenCheck(std::string user, std::string password, int window);

  void SetPassword(const std::string& password) { password_ = password; }

  // Throws the fault ter:NotAuthorized, with what is wrong, unless the header holds a token with
  // the digest of the password, created around `now` (seconds since 1970), and never seen before.
  void Check(const xmlNode* header, std::int64_t now);

 private:
  const std::string user_;
  std::string password_;
  const int window_;
  // When each was seen; a token older than the window is refused for its age.
  std::map<std::pair<std::string, std::string>, std::int64_t> seen_;  // nonce and created
};

}  // namespace testcamera
