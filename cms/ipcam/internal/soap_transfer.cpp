#include "cms/ipcam/internal/soap_transfer.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::size_t kMaxSoapAnswer = 1 << 20;
constexpr std::size_t kMaxFetched = 16 << 20;
constexpr long kConnectMs = 5000;
constexpr long kStatusOk = 200;
constexpr long kStatusUnauthorized = 401;

std::string OneLine(std::string_view text) {
  return Utf8FromWide(Plain(WideFromUtf8(text)));
}

}  // namespace

SoapTransfer::SoapTransfer(const OnvifAccess& access)
    : access_(access), rule_{access.check, access.fingerprint} {
  if (InitializeCurl()) {
    easy_.reset(curl_easy_init());
  }
}

SoapTransfer::~SoapTransfer() = default;

bool SoapTransfer::Prepare(const SoapRequestText& request) {
  request_ = request;
  freshLogin_ = false;
  return SetUp();
}

bool SoapTransfer::SetUp() {
  if (easy_ == nullptr) {
    return false;
  }
  headers_ = {};
  const SoapRequestText& request = request_;
  fetches_ = request.action.empty();
  if (!fetches_) {
    AppendHeader(headers_, "Content-Type: application/soap+xml; charset=utf-8; action=\"" +
                               request.action + "\"");
  }
  AppendHeader(headers_, "Expect:");
  Set(CURLOPT_URL, request.url.c_str());
  Set(CURLOPT_PATH_AS_IS, 1L);
  Set(CURLOPT_HTTPHEADER, headers_.get());
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(CURLOPT_PROTOCOLS_STR, access_.tls ? "https" : "http");
  Set(CURLOPT_PROXY, "");
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_QUICK_EXIT, 1L);
  Set(CURLOPT_HTTP09_ALLOWED, 0L);
  Set(CURLOPT_CONNECTTIMEOUT_MS, std::min<long>(kConnectMs, request.timeoutMs));
  Set(CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutMs));
  if (fetches_) {
    Set(CURLOPT_HTTPGET, 1L);
  } else {
    Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.envelope.size()));
    Set(CURLOPT_COPYPOSTFIELDS, request.envelope.c_str());
  }
  Set(CURLOPT_HEADERFUNCTION, &SoapTransfer::OnHeader);
  Set(CURLOPT_HEADERDATA, static_cast<void*>(this));
  Set(CURLOPT_WRITEFUNCTION, &SoapTransfer::OnBody);
  Set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  Set(CURLOPT_ERRORBUFFER, problem_);
  Set(CURLOPT_PRIVATE, static_cast<void*>(this));
  SetCertificateRule(easy_.get(), rule_);
  body_.clear();
  problem_[0] = '\0';
  digestWanted_ = false;
  basicWanted_ = false;
  if (logsIn_) {
    SetLogin();
  }
  return true;
}

void SoapTransfer::SetLogin() {
  Set(CURLOPT_HTTPAUTH,
      static_cast<long>(CURLAUTH_DIGEST | (access_.allowBasic ? CURLAUTH_BASIC : 0)));
  Set(CURLOPT_USERNAME, access_.user.c_str());
  Set(CURLOPT_PASSWORD, access_.password.c_str());
}

std::size_t SoapTransfer::OnHeader(char* data, std::size_t size, std::size_t count, void* self) {
  auto* transfer = static_cast<SoapTransfer*>(self);
  const std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {  // that of an interim answer or of a challenge does not count
    transfer->body_.clear();
  }
  transfer->digestWanted_ = transfer->digestWanted_ || IsChallenge(line, "Digest");
  transfer->basicWanted_ = transfer->basicWanted_ || IsChallenge(line, "Basic");
  return size * count;
}

std::size_t SoapTransfer::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
  auto* transfer = static_cast<SoapTransfer*>(self);
  if (transfer->body_.size() + size * count > transfer->MostBytes()) {
    return 0;
  }
  transfer->body_.append(data, size * count);
  return size * count;
}

std::size_t SoapTransfer::MostBytes() const {
  return fetches_ ? kMaxFetched : kMaxSoapAnswer;
}

long SoapTransfer::Status() const {
  long status = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

bool SoapTransfer::IsToBeRepeated(CURLcode code) {
  const bool can = digestWanted_ || (basicWanted_ && access_.allowBasic);
  if (code != CURLE_OK || Status() != kStatusUnauthorized || freshLogin_ || !can) {
    return false;
  }
  if (logsIn_) {  // a nonce of old, or of another service: libcurl takes it for a wrong password
    logsIn_ = false;
    easy_.reset(curl_easy_init());
    return SetUp();
  }
  freshLogin_ = true;
  logsIn_ = true;
  SetLogin();
  body_.clear();
  return true;
}

SoapReply SoapTransfer::TakeReply(CURLcode code) {
  SoapReply reply;
  const long status = easy_ == nullptr ? 0 : Status();
  reply.answered = status != 0;
  if (code != CURLE_OK) {
    reply.error = body_.size() > MostBytes() / 2 && code == CURLE_WRITE_ERROR
                      ? "the answer is longer than " + std::to_string(MostBytes()) + " bytes"
                  : problem_[0] != '\0' ? OneLine(problem_)
                                        : curl_easy_strerror(code);
    return reply;
  }
  if (fetches_ && status == kStatusOk) {
    reply.content = std::exchange(body_, {});
    return reply;
  }
  reply.text = Normalized(WideFromUtf8(std::exchange(body_, {})));
  const std::string reason = FaultReason(reply.text);
  reply.unauthorized = status == kStatusUnauthorized || IsNotAuthorizedFault(reply.text);
  if (reply.unauthorized) {
    reply.error = "the user name or the password is wrong";
    if (basicWanted_ && !digestWanted_ && !access_.allowBasic) {
      reply.error += ", or it takes nothing but Basic, which is not allowed";
    }
  } else if (status != kStatusOk && reason.empty()) {
    reply.error = "answered with HTTP status " + std::to_string(status);
  }
  if (!reason.empty()) {
    reply.error += reply.error.empty() ? reason : " (" + reason + ")";
  }
  return reply;
}

SoapReply SoapTransfer::Run(const SoapRequestText& request, int interrupt) {
  SoapReply failed;
  failed.error = "the HTTP client cannot be started";
  if (multi_ == nullptr) {
    multi_.reset(InitializeCurl() ? curl_multi_init() : nullptr);
  }
  if (multi_ == nullptr || !Prepare(request)) {
    return failed;
  }
  CURLcode code = CURLE_OK;
  do {
    if (curl_multi_add_handle(multi_.get(), easy_.get()) != CURLM_OK) {
      return failed;
    }
    const CURLMsg* done = nullptr;
    curl_waitfd woken{.fd = interrupt, .events = CURL_WAIT_POLLIN, .revents = 0};
    while (done == nullptr && woken.revents == 0) {
      int running = 0;
      int left = 0;
      curl_multi_perform(multi_.get(), &running);
      done = curl_multi_info_read(multi_.get(), &left);
      if (done == nullptr) {
        constexpr int kLongestMs = 60'000;  // libcurl knows its own times; this bounds nothing
        curl_multi_poll(multi_.get(), &woken, 1, kLongestMs, nullptr);
      }
    }
    code = done == nullptr ? CURLE_ABORTED_BY_CALLBACK : done->data.result;
    curl_multi_remove_handle(multi_.get(), easy_.get());
    if (done == nullptr) {
      failed.error = "interrupted";
      return failed;
    }
  } while (IsToBeRepeated(code));
  return TakeReply(code);
}

}  // namespace cms
