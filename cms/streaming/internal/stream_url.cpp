#include "cms/streaming/internal/stream_url.h"

#include <algorithm>
#include <optional>

#include "cms/streaming/rtsp_url.h"

namespace cms {
namespace {

// Behind "scheme://host:port".
std::size_t PathStart(std::string_view url) {
  const std::size_t scheme = url.find("://");
  const std::size_t start = scheme == std::string_view::npos ? 0 : scheme + 3;
  return std::min(url.find_first_of("/?", start), url.size());
}

bool IsWholeUrl(std::string_view text) {
  const std::size_t colon = text.find(':');
  return colon != std::string_view::npos && colon < text.find('/');
}

// As it may stand in a request; nothing for what is no RTSP URL.
std::optional<std::string> PlainUrl(std::string_view text) {
  const auto url = ParseCameraUrl(text);
  if (!url || (url->scheme != "rtsp" && url->scheme != "rtsps")) {
    return std::nullopt;
  }
  return url->plain;
}

}  // namespace

std::string BaseUrlOf(const RTSPMessage& answer, const std::string& requestUrl) {
  for (const char* const name : {"Content-Base", "Content-Location"}) {
    const std::string_view value = answer.Header(name);
    if (value.empty()) {
      continue;
    }
    if (auto url =
            PlainUrl(IsWholeUrl(value) ? std::string(value) : ControlUrl(requestUrl, value))) {
      return *url;
    }
  }
  return requestUrl;
}

std::string ControlUrl(const std::string& base, std::string_view control) {
  if (control.empty() || control == "*") {
    return base;
  }
  if (IsWholeUrl(control)) {
    return std::string(control);
  }
  if (control.starts_with('/')) {
    return base.substr(0, PathStart(base)).append(control);
  }
  return base + (base.ends_with('/') ? "" : "/") + std::string(control);
}

std::string PathOfUrl(const std::string& url) {
  const std::string path = url.substr(PathStart(url));
  return path.starts_with('/') ? path : "/" + path;
}

}  // namespace cms
