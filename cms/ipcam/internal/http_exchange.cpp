#include "cms/ipcam/internal/http_exchange.h"

#include <curl/curl.h>
#include <poll.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <system_error>

#include "cms/ipcam/internal/curl_support.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/digest.h"
#include "cms/runtime/log.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::size_t kMaxAnswerHeader = 65536;
constexpr std::size_t kMaxErrorBody = 8192;  // enough for any SOAP fault
constexpr std::size_t kMaxStatus = 100;      // of a status line in an error
constexpr int kOk = 200;
constexpr int kUnauthorized = 401;
constexpr long kMaxLogins = 2;  // a login, and one more whose nonce had become stale

// The caller's lines, then the Basic credentials. A line whose name is in the list already is left
// out.
CurlList RequestHeaders(const _SEND_HTTP_COMMAND_PARAM& param, bool basic) {
  CurlList list;
  const auto add = [&list](std::string_view line) {
    const std::string_view name = line.substr(0, line.find(':') + 1);
    for (const curl_slist* known = list.get(); known != nullptr; known = known->next) {
      if (EqualAnyCase(std::string_view(known->data).substr(0, name.size()), name)) {
        return;
      }
    }
    AppendHeader(list, std::string(line));
  };
  const std::string text = Utf8FromWide(param.headers);
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = std::min(rest.find("\r\n"), rest.size());
    if (end != 0) {
      add(rest.substr(0, end));
    }
    rest.remove_prefix(std::min(end + 2, rest.size()));
  }
  if (basic) {
    add("Authorization: Basic " +
        Base64(Utf8FromWide(param.userName) + ":" + Utf8FromWide(param.password)));
  }
  return list;
}

bool IsRequestTarget(std::string_view path) {
  return path.starts_with('/') && std::ranges::none_of(path, [](char c) {
           return static_cast<unsigned char>(c) <= ' ' || c == '#';
         });
}

std::string RequestTrace(const _SEND_HTTP_COMMAND_PARAM& param, const std::string& url,
                         const curl_slist* headers, const std::string& body) {
  std::string text = std::string("-> ") + (param.verb == kHttpVerbPost ? "POST " : "GET ") + url;
  for (; headers != nullptr; headers = headers->next) {
    text.append("\n").append(headers->data);
  }
  return text.append("\n\n").append(body);
}

// The state of one attempt; libcurl calls Header and Body.
class Attempt {
 public:
  Attempt(_SEND_HTTP_COMMAND_PARAM& param, const std::string& url, curl_slist* headers,
          const std::string& body, bool digest, const CertificateRule* tls,
          HttpExchangeReport& report)
      : param_(param), report_(report), bodySize_(static_cast<curl_off_t>(body.size())) {
    easy_.reset(curl_easy_init());
    multi_.reset(curl_multi_init());
    if (easy_ == nullptr || multi_ == nullptr) {
      return;
    }
    Set(CURLOPT_URL, url.c_str());
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_HTTPHEADER, headers);
    Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    Set(CURLOPT_PROTOCOLS_STR, tls != nullptr ? "https" : "http");
    Set(CURLOPT_ERRORBUFFER, problem_);
    if (tls != nullptr) {
      SetCertificateRule(easy_.get(), *tls);
    }
    Set(CURLOPT_PROXY, "");  // also against http_proxy
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_QUICK_EXIT, 1L);  // whoever has waited long enough does not wait for the resolver
    Set(CURLOPT_MAXREDIRS, kMaxLogins);
    Set(CURLOPT_HTTP09_ALLOWED, 0L);
    Set(CURLOPT_HEADERFUNCTION, &Attempt::Header);
    Set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    Set(CURLOPT_WRITEFUNCTION, &Attempt::Body);
    Set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    if (param.verb == kHttpVerbPost) {
      Set(CURLOPT_POSTFIELDSIZE_LARGE, bodySize_);
      Set(CURLOPT_POSTFIELDS, body.c_str());
    }
    if (digest) {
      Set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_DIGEST));
      Set(CURLOPT_USERNAME, Utf8FromWide(param.userName).c_str());
      Set(CURLOPT_PASSWORD, Utf8FromWide(param.password).c_str());
    }
    added_ = curl_multi_add_handle(multi_.get(), easy_.get()) == CURLM_OK;
  }
  ~Attempt() {
    if (added_) {
      curl_multi_remove_handle(multi_.get(), easy_.get());
    }
  }
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;

  void Run(int interrupt);
  bool IsConnected() const { return Info(CURLINFO_PRETRANSFER_TIME_T) > 0; }
  bool WasInterrupted() const { return interrupted_; }
  bool IsDigestWanted() const { return digestWanted_; }
  std::string AnswerTrace() const {
    const bool whole = param_.answer != nullptr && report_.body.empty();
    return header_ + (whole ? std::string(param_.answer, param_.answerLength) : report_.body) +
           (report_.error.empty() ? "" : "(" + report_.error + ")");
  }

 private:
  enum class Step { kConnecting, kSending, kAwaiting, kReceiving };

  template <typename Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(easy_.get(), option, value);
  }
  curl_off_t Info(CURLINFO info) const {
    curl_off_t value = 0;
    curl_easy_getinfo(easy_.get(), info, &value);
    return value;
  }
  static std::size_t Header(char* data, std::size_t size, std::size_t count, void* self) {
    return static_cast<Attempt*>(self)->OnHeader({data, size * count}) ? size * count : 0;
  }
  static std::size_t Body(char* data, std::size_t size, std::size_t count, void* self) {
    return static_cast<Attempt*>(self)->OnBody({data, size * count}) ? size * count : 0;
  }
  std::string_view Status() const {
    return std::string_view(header_).substr(0, header_.find('\r'));
  }
  int StatusCode() const;
  bool IsOk() const { return StatusCode() == kOk; }
  bool OnHeader(std::string_view line);
  bool OnBody(std::string_view data);
  Step CurrentStep() const;
  unsigned TimeFor(Step step) const;
  static const char* NameOf(Step step);
  bool PassesDeadline(std::uint64_t now);
  void Finish(CURLcode code);

  _SEND_HTTP_COMMAND_PARAM& param_;
  HttpExchangeReport& report_;
  const curl_off_t bodySize_;
  CurlEasy easy_;
  CurlMulti multi_;
  bool added_ = false;
  bool interrupted_ = false;
  bool digestWanted_ = false;  // the server challenges so
  std::string header_;
  bool headerEnded_ = false;
  char problem_[CURL_ERROR_SIZE] = {};
  Step step_ = Step::kConnecting;
  std::uint64_t stepBegan_ = 0;
};

// Of "HTTP/1.1 200 OK", whatever the reason's spelling (RFC 9112, section 4); 0 for none.
int Attempt::StatusCode() const {
  std::string_view status = Status();
  status.remove_prefix(std::min(status.find(' ') + 1, status.size()));
  int code = 0;
  const auto [end, error] = std::from_chars(status.data(), status.data() + status.size(), code);
  return error == std::errc() && end == status.data() + 3 ? code : 0;
}

bool Attempt::OnHeader(std::string_view line) {
  if (line.starts_with("HTTP/")) {  // an interim answer's header does not count
    header_.clear();
    headerEnded_ = false;
  }
  digestWanted_ = digestWanted_ || IsChallenge(line, "Digest");
  header_ += line;
  // After an interim answer the wait for the final one goes on: its limit does not begin anew.
  headerEnded_ = headerEnded_ || ((line == "\r\n" || line == "\n") && StatusCode() >= kOk);
  return header_.size() <= kMaxAnswerHeader;
}

bool Attempt::OnBody(std::string_view data) {
  if (!IsOk()) {
    report_.body.append(data.substr(0, kMaxErrorBody - report_.body.size()));
    return report_.body.size() < kMaxErrorBody;
  }
  if (param_.answer == nullptr || param_.answerCapacity == 0) {
    return false;
  }
  const std::size_t room = param_.answerCapacity - 1 - param_.answerLength;
  const std::size_t size = std::min(room, data.size());
  std::memcpy(param_.answer + param_.answerLength, data.data(), size);
  param_.answerLength += static_cast<unsigned>(size);
  report_.cut = size < data.size();
  return !report_.cut;
}

Attempt::Step Attempt::CurrentStep() const {
  if (headerEnded_) {
    return Step::kReceiving;
  }
  if (!IsConnected()) {
    return Step::kConnecting;
  }
  return Info(CURLINFO_SIZE_UPLOAD_T) < bodySize_ && param_.verb == kHttpVerbPost ? Step::kSending
                                                                                  : Step::kAwaiting;
}

unsigned Attempt::TimeFor(Step step) const {
  switch (step) {
    case Step::kConnecting:
      return param_.connectTimeout;
    case Step::kSending:
      return param_.controlSendTimeout + param_.dataSendTimeout;
    case Step::kAwaiting:
      return param_.controlReceiveTimeout;
    case Step::kReceiving:
      return param_.dataReceiveTimeout;
  }
  return 0;
}

const char* Attempt::NameOf(Step step) {
  switch (step) {
    case Step::kConnecting:
      return "no connection";
    case Step::kSending:
      return "the request was not taken";
    case Step::kAwaiting:
      return "no answer";
    case Step::kReceiving:
      return "the answer did not end";
  }
  return "";
}

bool Attempt::PassesDeadline(std::uint64_t now) {
  if (const Step step = CurrentStep(); step != step_ || stepBegan_ == 0) {
    step_ = step;
    stepBegan_ = now;
  }
  if (now - stepBegan_ < TimeFor(step_)) {
    return false;
  }
  report_.error = std::string(NameOf(step_)) + " within " + std::to_string(TimeFor(step_)) + " ms";
  return true;
}

void Attempt::Finish(CURLcode code) {
  // A body that OnBody had enough of is whole for the caller.
  const bool enough = code == CURLE_WRITE_ERROR && headerEnded_;
  report_.answered = !header_.empty();
  report_.status = StatusCode();
  if (code == CURLE_TOO_MANY_REDIRECTS && StatusCode() == kUnauthorized) {
    param_.result = kHttpCommandUnauthorized;
    report_.error = "the camera takes no login (401, again and again)";
  } else if (code != CURLE_OK && !enough) {
    report_.error = header_.size() > kMaxAnswerHeader ? "the answer's header does not end"
                    : code == CURLE_PARTIAL_FILE      ? "the answer broke off"
                    : code == CURLE_PEER_FAILED_VERIFICATION && problem_[0] != '\0'
                        ? problem_
                        : curl_easy_strerror(code);
  } else if (IsOk()) {
    param_.result = kHttpCommandOk;
  } else if (StatusCode() == kUnauthorized) {
    param_.result = kHttpCommandUnauthorized;
    report_.error = "the user name or the password is wrong (401 Unauthorized)";
  } else {
    report_.error = "answered " + std::string(Status().substr(0, kMaxStatus));
  }
}

void Attempt::Run(int interrupt) {
  if (!added_) {
    report_.error = "the HTTP client cannot be started";
    return;
  }
  curl_waitfd woken{.fd = interrupt, .events = CURL_WAIT_POLLIN, .revents = 0};
  for (;;) {
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    int left = 0;
    if (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
      Finish(message->data.result);
      return;
    }
    const std::uint64_t now = TickMilliseconds();
    if (PassesDeadline(now)) {
      report_.answered = !header_.empty();
      return;
    }
    const std::uint64_t leftMs = stepBegan_ + TimeFor(step_) - now;
    curl_multi_poll(multi_.get(), &woken, 1, static_cast<int>(leftMs), nullptr);
    if (woken.revents != 0) {
      interrupted_ = true;
      report_.error = "interrupted";
      return;
    }
  }
}

}  // namespace

HttpExchangeReport ExchangeHttp(_SEND_HTTP_COMMAND_PARAM& param, int interrupt,
                                const CertificateRule* tls) {
  HttpExchangeReport report;
  param.result = kHttpCommandFailed;
  const auto clear = [&param] {
    param.answerLength = 0;
    if (param.answer != nullptr && param.answerCapacity > 0) {
      param.answer[0] = '\0';
    }
  };
  clear();
  const std::string target = Utf8FromWide(param.objectPath);
  const std::string body = Utf8FromWide(param.body);
  const std::string origin =
      HttpOrigin(tls != nullptr ? "https" : "http", Utf8FromWide(param.serverAddress), param.port);
  if (!InitializeCurl()) {
    report.error = "the HTTP client cannot be started";
  } else if (origin.empty()) {
    report.error = "not an address and a port";
  } else if (!IsRequestTarget(target)) {
    report.error = "not a path of a request";
  } else if (pollfd woken{.fd = interrupt, .events = POLLIN, .revents = 0};
             poll(&woken, 1, 0) > 0) {
    report.error = "interrupted";
  }
  if (!report.error.empty()) {
    return report;
  }
  bool digest = false;
  for (unsigned retries = 0; retries <= param.connectRetries;) {
    report = {};
    clear();
    const CurlList headers = RequestHeaders(param, !digest);
    Attempt attempt(param, origin + target, headers.get(), body, digest, tls, report);
    if (IsLogged(LogLevel::kTrace)) {
      Log(LogLevel::kTrace, "http", RequestTrace(param, origin + target, headers.get(), body));
    }
    attempt.Run(interrupt);
    if (IsLogged(LogLevel::kTrace)) {
      Log(LogLevel::kTrace, "http", "<- " + origin + "\n" + attempt.AnswerTrace());
    }
    if (attempt.WasInterrupted()) {
      break;
    }
    if (!attempt.IsConnected()) {
      ++retries;
    } else if (param.result == kHttpCommandUnauthorized && attempt.IsDigestWanted() && !digest) {
      // A server that takes no Basic credentials has not looked at the request: once more.
      digest = true;
      param.result = kHttpCommandFailed;
    } else {
      break;
    }
  }
  if (param.result != kHttpCommandOk) {
    clear();
  } else if (param.answer != nullptr && param.answerCapacity > 0) {
    param.answer[param.answerLength] = '\0';
  }
  return report;
}

}  // namespace cms
