#include "cms/ipcam/internal/curl_support.h"

#include <algorithm>

#include "cms/runtime/text.h"

namespace cms {

bool InitializeCurl() {
  static const CURLcode initialized = curl_global_init(CURL_GLOBAL_ALL);
  return initialized == CURLE_OK;
}

void AppendHeader(CurlList& list, const std::string& line) {
  if (curl_slist* longer = curl_slist_append(list.get(), line.c_str())) {
    static_cast<void>(list.release());
    list.reset(longer);
  }
}

std::string HttpOrigin(const char* scheme, std::string host, int port) {
  const CurlUrl url(curl_url());
  if (host.find(':') != std::string::npos && !host.starts_with('[')) {
    host = "[" + host + "]";
  }
  char* text = nullptr;
  if (url == nullptr || port <= 0 || port > 65535 ||
      curl_url_set(url.get(), CURLUPART_SCHEME, scheme, 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_HOST, host.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
    return {};
  }
  std::string origin = text;
  curl_free(text);
  if (origin.ends_with('/')) {
    origin.pop_back();
  }
  return origin;
}

bool IsChallenge(std::string_view line, std::string_view scheme) {
  constexpr std::string_view kName = "WWW-Authenticate:";
  if (!EqualAnyCase(line.substr(0, kName.size()), kName)) {
    return false;
  }
  line.remove_prefix(kName.size());
  while (!line.empty()) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t,"), line.size()));
    if (EqualAnyCase(line.substr(0, scheme.size()), scheme) &&
        line.substr(scheme.size()).starts_with(' ')) {
      return true;
    }
    line.remove_prefix(std::min(line.find(','), line.size()));
  }
  return false;
}

}  // namespace cms
