// A hook that sends an HTTP POST.
#include <curl/curl.h>
#include <poll.h>

#include <algorithm>
#include <stdexcept>

#include "cms/streaming/rtsp_url.h"
#include "tools/service/hook_sender.h"

namespace tools {
namespace {

constexpr long kTooManyRequests = 429;
constexpr long kRequestTimeout = 408;
constexpr int kLookMs = 200;  // for the interruption, while the server is slow

// CURL and CURLM are both void.
template <auto Free>
struct FreedBy {
  template <typename Handle>
  void operator()(Handle* handle) const {
    Free(handle);
  }
};
using EasyHandle = std::unique_ptr<CURL, FreedBy<&curl_easy_cleanup>>;
using MultiHandle = std::unique_ptr<CURLM, FreedBy<&curl_multi_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, FreedBy<&curl_slist_free_all>>;

std::size_t Discard(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

class PostSender final : public HookSender {
 public:
  explicit PostSender(const HookConfig& config) : config_(config) {
    static const CURLcode initialized = curl_global_init(CURL_GLOBAL_ALL);
    const auto url = cms::ParseCameraUrl(config.url);
    if (initialized != CURLE_OK || !url || (url->scheme != "http" && url->scheme != "https")) {
      throw std::runtime_error("hook " + config.name +
                               ": url is to be http://HOST/PATH or https://HOST/PATH");
    }
    shown_ = url->plain;
    user_ = config.user.empty() ? url->user : config.user;
    password_ = config.user.empty() ? url->password : config.password;
  }

  HookAnswer Send(const HookEvent& event, int interrupt) override {
    const EasyHandle curl(curl_easy_init());
    const MultiHandle multi(curl_multi_init());
    const HeaderList headers(curl_slist_append(nullptr, "Content-Type: application/json"));
    if (!curl || !multi || !headers) {
      return {HookResult::kAgain, shown_ + ": out of memory"};
    }
    const std::string body = HookJson(event);
    char error[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl.get(), CURLOPT_URL, shown_.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, static_cast<long>(config_.timeoutSeconds));
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Discard);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl.get(), CURLOPT_USERAGENT, "orvanta");
    if (!user_.empty()) {
      curl_easy_setopt(curl.get(), CURLOPT_HTTPAUTH, CURLAUTH_ANY);
      curl_easy_setopt(curl.get(), CURLOPT_USERNAME, user_.c_str());
      curl_easy_setopt(curl.get(), CURLOPT_PASSWORD, password_.c_str());
    }
    if (!config_.caFile.empty()) {
      curl_easy_setopt(curl.get(), CURLOPT_CAINFO, config_.caFile.c_str());
    }
    curl_multi_add_handle(multi.get(), curl.get());
    const CURLcode code = Run(multi.get(), interrupt);
    curl_multi_remove_handle(multi.get(), curl.get());
    if (code != CURLE_OK) {
      return {HookResult::kAgain,
              shown_ + ": " + (error[0] != '\0' ? error : curl_easy_strerror(code))};
    }
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) {
      return {};
    }
    const bool later = status >= 500 || status == kTooManyRequests || status == kRequestTimeout;
    return {later ? HookResult::kAgain : HookResult::kRefused,
            shown_ + ": answered with HTTP status " + std::to_string(status)};
  }

 private:
  static CURLcode Run(CURLM* multi, int interrupt) {
    int running = 1;
    while (curl_multi_perform(multi, &running) == CURLM_OK && running > 0) {
      curl_waitfd extra{interrupt, CURL_WAIT_POLLIN, 0};
      curl_multi_poll(multi, &extra, 1, kLookMs, nullptr);
      pollfd woken{interrupt, POLLIN, 0};
      if (poll(&woken, 1, 0) > 0) {
        return CURLE_ABORTED_BY_CALLBACK;
      }
    }
    int left = 0;
    const CURLMsg* const message = curl_multi_info_read(multi, &left);
    return message != nullptr && message->msg == CURLMSG_DONE ? message->data.result
                                                              : CURLE_SEND_ERROR;
  }

  const HookConfig config_;
  std::string shown_;
  std::string user_;
  std::string password_;
};

}  // namespace

std::unique_ptr<HookSender> MakePostSender(const HookConfig& config) {
  return std::make_unique<PostSender>(config);
}

}  // namespace tools
