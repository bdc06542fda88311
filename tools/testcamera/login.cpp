#include "tools/testcamera/login.h"

#include <glib.h>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {
namespace {

std::string Hash(GChecksumType type, const std::string& text) {
  return TextPtr(g_compute_checksum_for_string(type, text.c_str(), -1)).get();
}

std::string Base64(const std::string& text) {
  return TextPtr(g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size())).get();
}

// The value of name="value" or name=value in a Digest line.
std::string Parameter(const std::string& line, const std::string& name) {
  const std::string start = name + "=";
  std::size_t at = line.find(start);
  while (at != std::string::npos && at > 0 && line[at - 1] != ' ' && line[at - 1] != ',') {
    at = line.find(start, at + 1);
  }
  if (at == std::string::npos) {
    return {};
  }
  at += start.size();
  return line[at] == '"' ? line.substr(at + 1, line.find('"', at + 1) - at - 1)
                         : line.substr(at, line.find_first_of(", ", at) - at);
}

std::string RandomNonce() {
  char text[17];
  g_snprintf(text, sizeof text, "%08x%08x", g_random_int(), g_random_int());
  return text;
}

bool IsCount(const std::string& text) {
  return text.size() == 8 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

}  // namespace

Login::Login(const CameraOptions& options)
    : scheme_(options.auth),
      user_(options.user),
      password_(options.password),
      nonce_(RandomNonce()) {}

std::vector<std::string> Login::Challenges() const {
  const std::string realm = std::string(" realm=\"") + kRealm + "\"";
  const std::string digest = "Digest" + realm + ", nonce=\"" + nonce_ + "\"";
  const std::string md5 = digest + ", algorithm=MD5, qop=\"auth\"";
  const std::string sha256 = digest + ", algorithm=SHA-256, qop=\"auth\"";
  switch (scheme_) {
    case AuthScheme::kNone:
      return {};
    case AuthScheme::kBasic:
      return {"Basic" + realm};
    case AuthScheme::kDigest:
      return {digest};
    case AuthScheme::kDigestQop:
      return {md5};
    case AuthScheme::kDigestSha256:
      return {sha256};
    case AuthScheme::kAll:
      return {sha256, md5, "Basic" + realm};
  }
  return {};
}

bool Login::Accepts(const std::string& authorization, const std::string& method,
                    const std::string& target) const {
  switch (scheme_) {
    case AuthScheme::kNone:
      return true;
    case AuthScheme::kBasic:
      return authorization == "Basic " + Base64(user_ + ":" + password_);
    case AuthScheme::kAll:
      return authorization == "Basic " + Base64(user_ + ":" + password_) ||
             AcceptsDigest(authorization, method, target);
    default:
      return AcceptsDigest(authorization, method, target);
  }
}

bool Login::AcceptsDigest(const std::string& authorization, const std::string& method,
                          const std::string& target) const {
  const auto given = [&](const char* name) { return Parameter(authorization, name); };
  const bool old = scheme_ == AuthScheme::kDigest;
  const std::string algorithm = given("algorithm").empty() ? "MD5" : given("algorithm");
  if (!authorization.starts_with("Digest ") || given("username") != user_ ||
      given("realm") != kRealm || given("nonce") != nonce_ || given("uri") != target ||
      (algorithm != "MD5" && algorithm != "SHA-256") ||
      (scheme_ == AuthScheme::kDigestSha256 && algorithm != "SHA-256") ||
      ((old || scheme_ == AuthScheme::kDigestQop) && algorithm != "MD5")) {
    return false;
  }
  const auto hash = [&](const std::string& text) {
    return Hash(algorithm == "MD5" ? G_CHECKSUM_MD5 : G_CHECKSUM_SHA256, text);
  };
  const std::string secret = hash(user_ + ":" + kRealm + ":" + password_);
  const std::string request = hash(method + ":" + target);
  if (old) {
    return given("response") == hash(secret + ":" + nonce_ + ":" + request);
  }
  return given("qop") == "auth" && IsCount(given("nc")) && !given("cnonce").empty() &&
         given("response") == hash(secret + ":" + nonce_ + ":" + given("nc") + ":" +
                                   given("cnonce") + ":auth:" + request);
}

}  // namespace testcamera
