#include "fleet/peer_client.h"

#include <curl/curl.h>

#include <stdexcept>
#include <utility>

namespace cms::fleet {
namespace {

constexpr long kPeerConnect = 2'000;  // milliseconds

struct PeerBody {
  std::string text;
  std::uint64_t most = 0;
};

std::size_t TakeBody(char* bytes, std::size_t, std::size_t count, void* to) {
  auto& body = *static_cast<PeerBody*>(to);
  if (body.text.size() + count > body.most) {
    return 0;
  }
  body.text.append(bytes, count);
  return count;
}

}  // namespace

PeerClient::PeerClient(PeerAccess access) : access_(std::move(access)), curl_(curl_easy_init()) {
  if (curl_ == nullptr) {
    throw std::runtime_error("out of memory");
  }
}

PeerClient::~PeerClient() {
  curl_easy_cleanup(curl_);
}

std::optional<std::string> PeerClient::Get(const std::string& url, const std::string& path,
                                           std::chrono::milliseconds wait, std::uint64_t most) {
  const std::string whole = url + "/auth/" + path;
  PeerBody body{{}, most};
  curl_easy_reset(curl_);
  curl_easy_setopt(curl_, CURLOPT_URL, whole.c_str());
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_PROXY, "");
  curl_easy_setopt(curl_, CURLOPT_HTTPAUTH, CURLAUTH_DIGEST);
  curl_easy_setopt(curl_, CURLOPT_USERNAME, access_.user.c_str());
  curl_easy_setopt(curl_, CURLOPT_PASSWORD, access_.password.c_str());
  curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, kPeerConnect);
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, static_cast<long>(wait.count()));
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &TakeBody);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body);
  if (!access_.caFile.empty()) {
    curl_easy_setopt(curl_, CURLOPT_CAINFO, access_.caFile.c_str());
  }
  if (!access_.certificateFile.empty()) {
    curl_easy_setopt(curl_, CURLOPT_SSLCERT, access_.certificateFile.c_str());
    curl_easy_setopt(curl_, CURLOPT_SSLKEY, access_.keyFile.c_str());
  }
  const CURLcode code = curl_easy_perform(curl_);
  long status = 0;
  curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  if (code != CURLE_OK || status != 200) {
    problem_ = url + ": " +
               (code != CURLE_OK ? curl_easy_strerror(code)
                : status == 401  ? "it refuses the login: it has another --secret-key"
                                 : ("it answers with status " + std::to_string(status)).c_str());
    return std::nullopt;
  }
  return std::move(body.text);
}

std::string PeerClient::Escaped(const std::string& text) const {
  char* escaped = curl_easy_escape(curl_, text.c_str(), static_cast<int>(text.size()));
  std::string result = escaped == nullptr ? "" : escaped;
  curl_free(escaped);
  return result;
}

}  // namespace cms::fleet
