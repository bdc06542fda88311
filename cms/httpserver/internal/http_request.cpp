#include "cms/httpserver/internal/http_request.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>

#include "cms/httpserver/internal/http_headers.h"
#include "cms/httpserver/internal/http_server.h"
#include "cms/httpserver/internal/whole_request.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/wait_ready.h"
#include "cms/runtime/clock.h"

namespace {

// A client that takes nothing for so long has gone, or means no good.
constexpr std::chrono::seconds kStallLimit{30};
// What one record of TLS takes (RFC 8446, 5.1).
constexpr std::size_t kRecordSize = 16384;

}  // namespace

HttpRequest::HttpRequest(HttpServer& server, int descriptor, const sockaddr_in& client)
    : server_(server),
      socket_(descriptor),
      client_(client),
      whole_(server.GetRules().wholeRequests.load(std::memory_order_relaxed)) {}

HttpRequest::~HttpRequest() {
  tls_.reset();  // says goodbye
  close(socket_);
}

pthread_t HttpRequest::HandOutThread() {
  threadAsMade_ = false;
  return pthread_self();
}

std::optional<std::string_view> HttpRequest::Header(std::string_view name) const {
  return cms::FindHeader(text_, name);
}

bool HttpRequest::SetStatus(std::uint32_t status) {
  if (whole_ && status > cms::kHttpInBlackList) {
    status = cms::IndexOfCode(status);
    if (status > cms::kHttpInBlackList && (status < 200 || status > 599)) {
      return false;
    }
  }
  status_ = status;
  return true;
}

bool HttpRequest::SetContentType(std::string_view type) {
  if (!cms::IsHeaderValue(type)) {
    return false;
  }
  contentType_ = type;
  return true;
}

bool HttpRequest::AddHeader(std::string_view name, std::string_view value) {
  if (!cms::IsHeaderName(name) || !cms::IsHeaderValue(value)) {
    return false;
  }
  otherHeaders_.append(name).append(": ").append(value).append("\r\n");
  return true;
}

int HttpRequest::WriteFormat(const char* format, va_list arguments) {
  const auto formatted = std::make_unique_for_overwrite<char[]>(kFormatSize);
  const int length = std::vsnprintf(formatted.get(), kFormatSize, format, arguments);
  if (length < 0) {
    return 0;
  }
  body_.append(formatted.get(), static_cast<std::size_t>(std::min(length, kFormatSize - 1)));
  return length < kFormatSize ? 1 : 0;
}

int HttpRequest::Flush(const char* data, int length) {
  if (server_.IsStopping()) {
    disconnect_ = true;
    return 0;
  }
  const bool any = data != nullptr && length > 0;
  return SendAnswer(any ? std::string_view(data, static_cast<std::size_t>(length))
                        : std::string_view());
}

// What a header block says besides its status and its length. With whole requests the client is
// told truly that the connection will be closed.
void HttpRequest::FillHead(cms::AnswerHead& head) const {
  head.keepAlive = !whole_;
  head.contentType = contentType_;
  head.challenge = challenge_;
  head.others = otherHeaders_;
}

// The way of every answer. While the server is being closed it still delivers what the system takes
// at once, so that short answers on their way arrive.
int HttpRequest::SendAnswer(std::string_view data) {
  std::string block;
  if (!headersSent_) {
    const std::int64_t now = cms::WallSeconds();
    if (challenge_.empty() &&
        (status_ == cms::kHttpAuthorizationRequired || status_ == cms::kHttpAuthenticationError)) {
      challenge_ = server_.GetRules().strictDigest ? MakeChallenge(false) : cms::DateChallenge(now);
    }
    const std::string code =
        whole_ && status_ > cms::kHttpInBlackList ? cms::CodeText(status_) : "";
    cms::AnswerHead head;
    FillHead(head);
    head.keepAlive = head.keepAlive && keepAlive_;
    head.status = code.empty() ? cms::StatusText(status_) : std::string_view(code);
    block = cms::HeaderBlock(head, body_.size(), now);
  }
  if (parsed_.method == "HEAD") {
    data = {};
  }
  if (tls_ != nullptr && !block.empty() && block.size() < kRecordSize) {
    const std::string_view along = data.substr(0, kRecordSize - block.size());
    block += along;
    data.remove_prefix(along.size());
  }
  if (!SendAll(block, data)) {
    return 0;
  }
  headersSent_ = true;
  return 1;
}

std::string HttpRequest::MakeChallenge(bool stale) const {
  return cms::NonceChallenge(server_.Nonces().Make(cms::TickMilliseconds()), stale,
                             server_.GetRules().sha256Digest);
}

int HttpRequest::SendFileHeader(std::int64_t length, std::string_view lastModified) {
  if (headersSent_) {
    return 0;
  }
  cms::AnswerHead head;
  FillHead(head);
  if (!cms::IsHeaderValue(lastModified)) {
    lastModified = {};
  }
  if (server_.IsStopping() ||
      !SendAll(cms::FileHeaderBlock(head, length, lastModified, cms::WallSeconds()), {})) {
    disconnect_ = true;
    return 0;
  }
  headersSent_ = true;
  return 1;
}

// Head and data leave together, in as few segments as they fit.
ssize_t HttpRequest::SendSome(std::string_view head, std::string_view data) {
  if (tls_ != nullptr) {
    const std::string_view next = head.empty() ? data : head;
    constexpr std::size_t kMost = std::numeric_limits<int>::max();
    return tls_->Send(next.data(), static_cast<int>(std::min(next.size(), kMost)));
  }
  iovec parts[] = {{const_cast<char*>(head.data()), head.size()},
                   {const_cast<char*>(data.data()), data.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  return sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool HttpRequest::SendAll(std::string_view head, std::string_view data) {
  while (!head.empty() || !data.empty()) {
    const ssize_t sent = SendSome(head, data);
    if (sent < 0) {
      if (errno == EINTR ||
          (cms::IsWouldBlock(errno) &&
           cms::WaitReady(socket_, POLLOUT, server_.StopDescriptor(),
                          whole_ ? kStallLimit : cms::kNoLimit) == cms::Readiness::kReady)) {
        continue;
      }
      disconnect_ = true;
      return false;
    }
    const auto count = static_cast<std::size_t>(sent);
    sent_ += count;
    const std::size_t ofHead = std::min(count, head.size());
    head.remove_prefix(ofHead);
    data.remove_prefix(count - ofHead);
  }
  return true;
}

// Priorities above 0 are more urgent. The system may refuse them, which is no failure.
int HttpRequest::SetPriority(int priority) {
  threadAsMade_ = false;
  constexpr int kNicePerStep = 5;
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()),
              -kNicePerStep * std::clamp(priority, -3, 3));
  return 1;
}
