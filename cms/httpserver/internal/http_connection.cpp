// The course of a connection: waiting, access, one read, the handler, the end.
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <new>
#include <optional>

#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/httpserver/internal/http_request.h"
#include "cms/httpserver/internal/http_server.h"
#include "cms/net/internal/wait_ready.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// A client that has sent nothing for so long after it was accepted is dropped.
constexpr microseconds kFirstBytesLimit = 301 * microseconds(100);
// For the denied to read why, as their requests are never read.
constexpr milliseconds kDenialPause{500};
constexpr milliseconds kLingerLimit{500};
constexpr std::size_t kLingerBytes = std::size_t{1} << 20;

constexpr std::string_view kBlackBody =
    "<HTML><BODY>\r\n<p>In Black List!!</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kNotWhiteBody =
    "<HTML><BODY>\r\n<p>Not In White List!!</p>\r\n</BODY></HTML>\r\n";
constexpr std::string_view kBadRequestBody =
    "<HTML><BODY>\r\n<p>Bad Request!!</p>\r\n</BODY></HTML>\r\n";
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

void HttpRequest::Serve() {
  thread_ = pthread_self();
  try {
    const Access access = CheckAccess();
    if (access == Access::kDenied) {
      // Only the client's own close ends the pause early.
      cms::WaitReady(socket_, POLLRDHUP, server_.StopDescriptor(), kDenialPause);
      // Unread bytes would turn the close into a reset.
      std::array<char, 4096> dropped;
      recv(socket_, dropped.data(), dropped.size(), MSG_DONTWAIT);
      return;
    }
    if (access == Access::kPassed && Receive()) {
      Answer();
      LingerBeforeClose();
    }
  } catch (const std::bad_alloc&) {
    // The connection ends; the host goes on.
  }
}

HttpRequest::Access HttpRequest::CheckAccess() {
  if (!server_.ChecksAccess()) {
    return Access::kPassed;
  }
  if (cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), kFirstBytesLimit) !=
      cms::Readiness::kReady) {
    return Access::kGone;
  }
  switch (server_.AllowAccess(ntohl(client_.sin_addr.s_addr))) {
    case kAccessBlack:
      Refuse(kHttpInBlackList, kBlackBody);
      return Access::kDenied;
    case kAccessNotWhite:
      Refuse(kHttpNotInWhiteList, kNotWhiteBody);
      return Access::kDenied;
    default:
      return Access::kPassed;
  }
}

// One read is all that counts. Most requests are there already when their connection is accepted.
bool HttpRequest::Receive() {
  std::array<char, cms::kMaxRequestText> buffer;
  const auto deadline = std::chrono::steady_clock::now() + kFirstBytesLimit;
  while (!server_.IsStopping()) {
    const ssize_t got = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got > 0) {
      text_.assign(buffer.data(), static_cast<std::size_t>(got));
      return true;
    }
    if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      return false;
    }
    const auto left =
        std::chrono::duration_cast<microseconds>(deadline - std::chrono::steady_clock::now());
    if (left <= microseconds::zero() ||
        cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), left) != cms::Readiness::kReady) {
      return false;
    }
  }
  return false;
}

void HttpRequest::Answer() {
  if (!cms::ParseRequest(text_, parsed_, server_.ReadsFirstLineOnly())) {
    Refuse(kHttpBadRequest, kBadRequestBody);
    return;
  }
  const std::optional<EgiHandler> handler = server_.FindHandler(parsed_.command);
  if (!handler) {
    Refuse(kHttpNotFound, kNotFoundBody);
    return;
  }
  const std::string_view name = handler->name;
  if (name.find("/auth") == std::string_view::npos) {
    const bool marked = parsed_.clientIsIe && name.find('/') != std::string_view::npos;
    handler->callback(this, marked ? "IE" : nullptr, 0);
  } else {
    switch (cms::VerifyDigest(parsed_.authorization, parsed_.method, server_.PasswordLookup())) {
      case cms::DigestResult::kGood:
        handler->callback(this, nullptr, 0);
        break;
      case cms::DigestResult::kBad:
        Refuse(kHttpAuthenticationError, kAuthenticationErrorBody);
        return;
      case cms::DigestResult::kNoneGiven:
        Refuse(kHttpAuthorizationRequired, kAuthorizationRequiredBody);
        return;
    }
  }
  if (!disconnect_) {
    SendAnswer(body_);
  }
}

void HttpRequest::Refuse(std::uint32_t status, std::string_view body) {
  status_ = status;
  keep_alive_ = false;
  disconnect_ = true;
  body_ = body;
  SendAnswer(body_);
}

// Closing a socket with unread bytes resets the connection, and the reset can overtake the answer.
// So where the one read has not taken all that the client sends, the rest is let run out.
void HttpRequest::LingerBeforeClose() {
  const bool whole = text_.size() < cms::kMaxRequestText && text_.ends_with("\r\n\r\n");
  if (whole || !server_.BeginLinger()) {
    return;
  }
  shutdown(socket_, SHUT_WR);
  std::array<char, 16384> buffer;
  std::size_t taken = 0;
  const auto deadline = std::chrono::steady_clock::now() + kLingerLimit;
  while (taken < kLingerBytes) {
    const auto left =
        std::chrono::duration_cast<microseconds>(deadline - std::chrono::steady_clock::now());
    if (left <= microseconds::zero() ||
        cms::WaitReady(socket_, POLLIN, server_.StopDescriptor(), left) != cms::Readiness::kReady) {
      break;
    }
    const ssize_t got = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got <= 0) {
      break;
    }
    taken += static_cast<std::size_t>(got);
  }
  server_.EndLinger();
}
