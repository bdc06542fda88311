#include "tools/testcamera/http_password.h"

#include <glib.h>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {
namespace {

std::string Md5(const std::string& text) {
  return TextPtr(g_compute_checksum_for_string(G_CHECKSUM_MD5, text.c_str(), -1)).get();
}

std::string Base64(const std::string& text) {
  return TextPtr(g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size())).get();
}

// The value of name="value" in a Digest line.
std::string Parameter(const std::string& line, const std::string& name) {
  const std::string start = name + "=\"";
  std::size_t at = line.find(start);
  while (at != std::string::npos && at > 0 && line[at - 1] != ' ' && line[at - 1] != ',') {
    at = line.find(start, at + 1);
  }
  if (at == std::string::npos) {
    return {};
  }
  at += start.size();
  return line.substr(at, line.find('"', at) - at);
}

std::string RandomNonce() {
  char text[17];
  g_snprintf(text, sizeof text, "%08x%08x", g_random_int(), g_random_int());
  return text;
}

}  // namespace

HttpPassword::HttpPassword(const CameraOptions& options)
    : scheme_(options.auth),
      user_(options.user),
      password_(options.password),
      nonce_(RandomNonce()) {}

std::string HttpPassword::Challenge() const {
  const std::string realm = std::string(" realm=\"") + kRealm + "\"";
  return scheme_ == AuthScheme::kDigest ? "Digest" + realm + ", nonce=\"" + nonce_ + "\""
                                        : "Basic" + realm;
}

bool HttpPassword::Accepts(const std::string& authorization, const std::string& method,
                           const std::string& target) const {
  switch (scheme_) {
    case AuthScheme::kNone:
      return true;
    case AuthScheme::kBasic:
      return authorization == "Basic " + Base64(user_ + ":" + password_);
    case AuthScheme::kDigest: {
      const std::string secret = Md5(user_ + ":" + kRealm + ":" + password_);
      return authorization.compare(0, 7, "Digest ") == 0 &&
             Parameter(authorization, "username") == user_ &&
             Parameter(authorization, "nonce") == nonce_ &&
             Parameter(authorization, "uri") == target &&
             Parameter(authorization, "response") ==
                 Md5(secret + ":" + nonce_ + ":" + Md5(method + ":" + target));
    }
  }
  return false;
}

}  // namespace testcamera
