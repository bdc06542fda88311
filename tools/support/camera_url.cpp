#include "tools/support/camera_url.h"

#include <algorithm>

#include "tools/support/options.h"

namespace tools {
namespace {

// Without what stands in front of the last "@".
std::string Shown(const std::string& text) {
  const std::size_t scheme = text.find("://");
  const std::size_t at = text.rfind('@');
  if (scheme == std::string::npos || at == std::string::npos || at < scheme) {
    return at == std::string::npos ? text : "..." + text.substr(at);
  }
  return text.substr(0, scheme + 3) + "..." + text.substr(at);
}

}  // namespace

cms::CameraUrl ReadCameraUrl(const std::string& text,
                             std::initializer_list<std::string_view> schemes,
                             const std::string& form) {
  std::string why;
  const auto url = cms::ParseCameraUrl(text, &why);
  const auto isOneOf = [&](const std::string& scheme) {
    return std::find(schemes.begin(), schemes.end(), scheme) != schemes.end();
  };
  if (url && isOneOf(url->scheme)) {
    return *url;
  }
  if (url) {
    const std::string plain = url->scheme.substr(0, url->scheme.size() - 1);
    why = url->scheme == plain + "s" && isOneOf(plain) ? "TLS is not supported"
                                                       : url->scheme + ":// is not supported";
  }
  throw UsageError("\"" + Shown(text) + "\" is not a URL of the form " + form + ": " + why);
}

}  // namespace tools
