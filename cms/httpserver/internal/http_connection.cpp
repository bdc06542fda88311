// The course of a connection: waiting, access, the request, the handler, the end.
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <exception>

#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/httpserver/internal/http_request.h"
#include "cms/httpserver/internal/http_server.h"
#include "cms/httpserver/internal/whole_request.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/wait_ready.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/ip_address.h"
#include "cms/runtime/log.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A client that has sent nothing for so long after it was accepted is dropped.
constexpr microseconds kFirstBytesLimit = 301 * microseconds(100);
// A whole request has to arrive within this, or, where many are being served, the second one.
constexpr std::chrono::seconds kRequestLimit{10};
constexpr std::chrono::seconds kCrowdedRequestLimit{1};
// For the denied to read why, as their requests are never read.
constexpr milliseconds kDenialPause{500};
constexpr milliseconds kLingerLimit{500};
constexpr std::size_t kLingerBytes = std::size_t{1} << 20;
// A longer answer may still be on its way when its connection is closed.
constexpr std::uint64_t kShortAnswer = 16384;

constexpr std::string_view kBlackBody =
    "<HTML><BODY>\r\n<p>In Black List!!</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kNotWhiteBody =
    "<HTML><BODY>\r\n<p>Not In White List!!</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kBadRequestBody =
    "<HTML><BODY>\r\n<p>Bad Request!!</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kNotPlainBody =
    "<HTML><BODY>\r\n<p>This server speaks HTTPS alone: put https:// in front of its "
    "address.</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kNotFoundBody =
    "<HTML><HEAD><TITLE>Document Error: Not Found</TITLE></HEAD>\r\n"
    "<BODY><H2>Access Error: 404 -- Not Found</H2>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kAuthenticationErrorBody =
    "<HTML><HEAD>\r\n"
    "<TITLE>Authentication Error: Access Denied, authentication error.</TITLE>\r\n"
    "</HEAD>\r\n<BODY><H2>Authentication Error: Access Denied, authentication error."
    "</H2></BODY>\r\n</HTML>\r\n";
constexpr std::string_view kAuthorizationRequiredBody =
    "<HTML><HEAD>\r\n"
    "<TITLE>Authentication Error: Access Denied, Authorization required.</TITLE>\r\n"
    "</HEAD>\r\n<BODY><H2>Authentication Error: Access Denied, Authorization required."
    "</H2></BODY>\r\n</HTML>\r\n";

}  // namespace

bool HttpRequest::Serve() {
  try {
    const Access access = CheckAccess();
    if (access == Access::kDenied) {
      PauseBeforeClose();
    } else if (access == Access::kPassed && Secure() && Receive()) {
      Answer();
      LingerBeforeClose();
    }
  } catch (const std::exception&) {
    // Memory is short, or it is the handler's or the password lookup's: the connection ends, the
    // host goes on.
  }
  return threadAsMade_;
}

HttpRequest::Access HttpRequest::CheckAccess() {
  if (!server_.GetRules().checksAccess) {
    return Access::kPassed;
  }
  if (cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), kFirstBytesLimit) !=
      cms::Readiness::kReady) {
    return Access::kGone;
  }
  switch (server_.AllowAccess(ntohl(client_.sin_addr.s_addr))) {
    case cms::kAccessBlack:
      return Deny(cms::kHttpInBlackList, kBlackBody);
    case cms::kAccessNotWhite:
      return Deny(cms::kHttpNotInWhiteList, kNotWhiteBody);
    default:
      return Access::kPassed;
  }
}

// By TLS a handshake would have to be made to tell why.
HttpRequest::Access HttpRequest::Deny(std::uint32_t status, std::string_view body) {
  if (server_.Certificate() != nullptr) {
    LogRefusal(status);
    return Access::kGone;
  }
  Refuse(status, body);
  return Access::kDenied;
}

// Whether the connection is as secure as the server wants it. A handshake has as long as a request.
bool HttpRequest::Secure() {
  if (server_.Certificate() == nullptr) {
    return true;
  }
  const auto limit = server_.IsCrowded() ? kCrowdedRequestLimit : kRequestLimit;
  char first = 0;
  if (cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), limit) != cms::Readiness::kReady ||
      recv(socket_, &first, 1, MSG_PEEK | MSG_DONTWAIT) != 1) {
    return false;
  }
  if (first >= 'A' && first <= 'Z') {
    RefusePlain();
    return false;
  }
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // records are whole answers
  cms::TlsResult result;
  tls_ = cms::TlsStream::Accept(socket_, server_.Certificate()->Context().get(),
                                static_cast<int>(milliseconds(limit).count()),
                                server_.StopDescriptor(), &result);
  if (tls_ == nullptr && !result.text.empty() && cms::IsLogged(cms::LogLevel::kInfo)) {
    cms::Log(cms::LogLevel::kInfo, "server",
             "a client at " + cms::IpAddress(ntohl(client_.sin_addr.s_addr)).Text() +
                 " came to no agreement on TLS: " + result.text);
  }
  return tls_ != nullptr;
}

// Who typed "http://" is told what to type.
void HttpRequest::RefusePlain() {
  if (Receive() && Parse()) {
    Refuse(cms::kHttpBadRequest, kNotPlainBody);
    LingerBeforeClose();
  }
}

// Where too many do so already, the connection is closed at once.
void HttpRequest::PauseBeforeClose() {
  const cms::Share::Part pause(server_.Pauses());
  if (!pause) {
    return;
  }
  // Only the client's own close ends the pause early.
  cms::WaitReady(socket_, POLLRDHUP, server_.StopDescriptor(), kDenialPause);
  // Unread bytes would turn the close into a reset.
  std::array<char, 4096> dropped;
  recv(socket_, dropped.data(), dropped.size(), MSG_DONTWAIT);
}

bool HttpRequest::Receive() {
  return whole_ ? ReceiveWhole() : ReceiveOnce();
}

// What came, 0 at the end of what comes, or -1 when nothing came until the deadline or the server
// is being closed. Most requests are there already when their connection is accepted.
ssize_t HttpRequest::ReceiveSome(std::span<char> buffer, steady_clock::time_point deadline) {
  while (!server_.IsStopping()) {
    const ssize_t got = tls_ != nullptr
                            ? tls_->Receive(buffer.data(), static_cast<int>(buffer.size()), true)
                            : recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got >= 0) {
      return got;
    }
    if (!cms::IsWouldBlock(errno) && errno != EINTR) {
      return 0;
    }
    const auto left = std::chrono::duration_cast<microseconds>(deadline - steady_clock::now());
    if (left <= microseconds::zero() ||
        cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), left) != cms::Readiness::kReady) {
      break;
    }
  }
  return -1;
}

// One read is all that counts.
bool HttpRequest::ReceiveOnce() {
  std::array<char, cms::kMaxRequestText> buffer;
  const ssize_t got = ReceiveSome(buffer, steady_clock::now() + kFirstBytesLimit);
  if (got <= 0) {
    return false;
  }
  text_.assign(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

steady_clock::time_point HttpRequest::ReadLimit(steady_clock::time_point start) const {
  return start + (server_.IsCrowded() ? kCrowdedRequestLimit : kRequestLimit);
}

bool HttpRequest::ReceiveWhole() {
  const auto start = steady_clock::now();
  std::array<char, 4096> buffer;
  while (true) {
    const ssize_t got = ReceiveSome(buffer, ReadLimit(start));
    if (got <= 0) {
      if (got < 0 && !text_.empty() && !server_.IsStopping()) {
        RefuseRead(408);
      }
      return false;
    }
    const std::size_t before = text_.size();
    text_.append(buffer.data(), static_cast<std::size_t>(got));
    wanted_ = cms::HeadLength(text_, before);
    if (wanted_ > 0) {
      return true;
    }
    if (text_.size() > cms::kMaxWholeRequest) {
      RefuseRead(431);
      LingerBeforeClose();
      return false;
    }
  }
}

bool HttpRequest::ReadBody(std::size_t most, std::string& body) {
  const std::string_view told = Header("Content-Length").value_or("");
  std::size_t length = 0;
  const auto [end, error] = std::from_chars(told.data(), told.data() + told.size(), length);
  if (wanted_ == 0 || told.empty() || error != std::errc() || end != told.data() + told.size() ||
      length > most || Header("Transfer-Encoding")) {
    return false;
  }
  const auto start = steady_clock::now();
  std::array<char, 4096> buffer;
  while (text_.size() < wanted_ + length) {
    const ssize_t got = ReceiveSome(buffer, ReadLimit(start));
    if (got <= 0) {
      return false;
    }
    text_.append(buffer.data(), static_cast<std::size_t>(got));
  }
  body = text_.substr(wanted_, length);
  wanted_ += length;
  return true;
}

bool HttpRequest::Parse() {
  return whole_ ? cms::ParseWholeRequest(std::string_view(text_).substr(0, cms::HeadLength(text_)),
                                         parsed_)
                : cms::ParseRequest(text_, parsed_, server_.GetRules().firstLineOnly);
}

void HttpRequest::Answer() {
  if (!Parse()) {
    Refuse(cms::kHttpBadRequest, kBadRequestBody);
    return;
  }
  const cms::HttpHandler* const handler = server_.FindHandler(parsed_.command);
  if (handler == nullptr) {
    Refuse(cms::kHttpNotFound, kNotFoundBody);
    return;
  }
  if (handler->name.find("/auth") == std::string::npos) {
    const bool marked = parsed_.clientIsIe && handler->name.find('/') != std::string::npos;
    handler->callback(this, marked ? "IE" : nullptr);
  } else if (LogIn()) {
    handler->callback(this, nullptr);
  } else {
    return;
  }
  if (!disconnect_) {
    SendAnswer(body_);
  }
}

// Whether the request proves its user, whose name is told from then on; else it is answered.
bool HttpRequest::LogIn() {
  const cms::LoginGuard& guard = server_.Guard();
  const bool guarded = guard && !parsed_.authorization.empty();
  const std::string user =
      guarded ? cms::ParseDigestFields(parsed_.authorization).userName : std::string();
  if (guarded && guard(this, user, cms::HttpLoginStep::kAsked) == 0) {
    RefuseRead(429);
    return false;
  }
  const cms::DigestVerdict verdict =
      server_.GetRules().strictDigest
          ? cms::VerifyStrictDigest(parsed_.authorization, parsed_.method, parsed_.target,
                                    server_.Passwords(), server_.Nonces(), cms::TickMilliseconds())
          : cms::VerifyDigest(parsed_.authorization, parsed_.method, server_.Passwords());
  switch (verdict.result) {
    case cms::DigestResult::kGood:
      parsed_.userName = verdict.userName;
      if (guarded) {
        guard(this, user, cms::HttpLoginStep::kGood);
      }
      return true;
    case cms::DigestResult::kBad:
      if (guarded) {
        guard(this, user, cms::HttpLoginStep::kWrong);
      }
      Refuse(cms::kHttpAuthenticationError, kAuthenticationErrorBody);
      return false;
    case cms::DigestResult::kNoneGiven:
      break;
    case cms::DigestResult::kStale:
      challenge_ = MakeChallenge(true);
      break;
  }
  Refuse(cms::kHttpAuthorizationRequired, kAuthorizationRequiredBody);
  return false;
}

// Of refusals those that an operator wants to know of.
void HttpRequest::LogRefusal(std::uint32_t status) const {
  const char* const why = status == cms::kHttpAuthenticationError ? "wrong user name or password"
                          : status == cms::kHttpInBlackList       ? "the address is denied"
                          : status == cms::kHttpNotInWhiteList    ? "the address is not allowed"
                                                                  : nullptr;
  if (why != nullptr && cms::IsLogged(cms::LogLevel::kWarning)) {
    cms::Log(cms::LogLevel::kWarning, "server",
             "a client at " + cms::IpAddress(ntohl(client_.sin_addr.s_addr)).Text() +
                 " was refused: " + why);
  }
}

void HttpRequest::Refuse(std::uint32_t status, std::string_view body) {
  LogRefusal(status);
  status_ = status;
  keepAlive_ = false;
  disconnect_ = true;
  body_ = body;
  SendAnswer(body_);
}

// Of a request that was not read to its end.
void HttpRequest::RefuseRead(std::uint32_t status) {
  const std::string text = cms::CodeText(status);
  Refuse(status, "<HTML><BODY>\r\n<p>" + text + "</p>\r\n</BODY></HTML>\r\n");
}

// Whether the client has sent more than was read, is about to, or may while a long answer is on its
// way.
bool HttpRequest::MayStillSend() {
  const bool ended = whole_ ? wanted_ == text_.size()
                            : text_.size() < cms::kMaxRequestText && text_.ends_with("\r\n\r\n");
  const std::string_view length = Header("Content-Length").value_or("0");
  char more = 0;
  return !ended || sent_ > kShortAnswer || length != "0" || Header("Transfer-Encoding") ||
         recv(socket_, &more, 1, MSG_DONTWAIT) > 0;
}

// Closing a socket with unread bytes resets the connection, and the reset can overtake the answer.
// So where the client may send more than was read, that is let run out.
void HttpRequest::LingerBeforeClose() {
  tls_.reset();  // whatever is sent still is dropped as it comes
  if (!MayStillSend()) {
    return;
  }
  const cms::Share::Part linger(server_.Lingers());
  if (!linger) {
    return;
  }
  shutdown(socket_, SHUT_WR);
  std::array<char, 16384> buffer;
  const auto deadline = steady_clock::now() + kLingerLimit;
  ssize_t got = 1;
  for (std::size_t taken = 0; taken < kLingerBytes && got > 0;
       taken += static_cast<std::size_t>(got)) {
    got = std::max<ssize_t>(ReceiveSome(buffer, deadline), 0);
  }
}
