// Who may come in: Basic (RFC 7617), Digest with MD5 as cameras of old ask, and with SHA-256 and
// qop="auth" as those of today do (RFC 7616).
#pragma once

#include <string>
#include <vector>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

class Login {
 public:
  explicit Login(const CameraOptions& options);

  // The values of WWW-Authenticate, the best one first (RFC 7616, 3.7). In that of Digest of old
  // the realm is followed by the nonce at once.
  std::vector<std::string> Challenges() const;

  // Whether the value of Authorization is good for a request; always so when no password is asked.
  bool Accepts(const std::string& authorization, const std::string& method,
               const std::string& target) const;

 private:
  bool AcceptsDigest(const std::string& authorization, const std::string& method,
                     const std::string& target) const;

  const AuthScheme scheme_;
  const std::string user_;
  const std::string password_;
  const std::string nonce_;
};

}  // namespace testcamera
