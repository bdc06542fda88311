// How an ONVIF camera is reached and who logs in there.
#pragma once

#include <string>

#include "cms/net/tls_parameters.h"

namespace cms {

// UTF-8 texts. The password is shown in no text that the library makes.
struct OnvifAccess {
  std::string host;  // a name or an address; an IPv6 one without its brackets
  int port = 0;      // of HTTP; 0: 80, with TLS 443
  std::string user;
  std::string password;
  bool tls = false;
  CertificateCheck check = CertificateCheck::kSystem;  // with TLS
  std::string fingerprint;                             // with kPinned, as PlainFingerprint gives it
  // Requests are signed with a digest of the password (WS-Security UsernameToken), and a camera
  // that asks for HTTP Digest beside it is answered. One that takes nothing but Basic gets the
  // password itself, for everybody on the way to read unless TLS is used, if this says so.
  bool allowBasic = false;
};

}  // namespace cms
