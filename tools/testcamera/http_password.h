// The password check of the camera's HTTP side: Basic and Digest (RFC 2617).
#pragma once

#include <string>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

class HttpPassword {
 public:
  explicit HttpPassword(const CameraOptions& options);

  // The value of WWW-Authenticate: Digest without qop, as cameras of old ask, so that the realm is
  // followed by the nonce at once.
  std::string Challenge() const;

  // Whether the value of Authorization is good for a request; always so when no password is asked.
  bool Accepts(const std::string& authorization, const std::string& method,
               const std::string& target) const;

 private:
  const AuthScheme scheme_;
  const std::string user_;
  const std::string password_;
  const std::string nonce_;
};

}  // namespace testcamera
