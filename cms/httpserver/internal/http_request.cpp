#include "cms/httpserver/internal/http_request.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "cms/httpserver/internal/http_headers.h"
#include "cms/httpserver/internal/http_server.h"
#include "cms/net/internal/wait_ready.h"
#include "cms/runtime/clock.h"

HttpRequest::HttpRequest(HttpServer& server, int descriptor, const sockaddr_in& client)
    : server_(server), socket_(descriptor), client_(client) {}

HttpRequest::~HttpRequest() {
  close(socket_);
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

// The way of every answer. While the server is being closed it still delivers what the system takes
// at once, so that short answers on their way arrive.
int HttpRequest::SendAnswer(std::string_view data) {
  std::string head;
  if (!headers_sent_) {
    head = cms::HeaderBlock(status_, body_.size(), keep_alive_, cms::WallSeconds());
  }
  if (parsed_.method == "HEAD") {
    data = {};
  }
  if (!SendAll(head, data)) {
    return 0;
  }
  headers_sent_ = true;
  return 1;
}

int HttpRequest::SendFileHeader(std::int64_t length, std::string_view lastModified) {
  if (headers_sent_) {
    return 1;
  }
  if (server_.IsStopping() ||
      !SendAll(cms::FileHeaderBlock(length, lastModified, cms::WallSeconds()), {})) {
    disconnect_ = true;
    return 0;
  }
  headers_sent_ = true;
  return 1;
}

// Head and data leave together, in as few segments as they fit.
bool HttpRequest::SendAll(std::string_view head, std::string_view data) {
  while (!head.empty() || !data.empty()) {
    iovec parts[] = {{const_cast<char*>(head.data()), head.size()},
                     {const_cast<char*>(data.data()), data.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t sent = sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      const bool full = errno == EAGAIN || errno == EWOULDBLOCK;
      if (errno == EINTR || (full && cms::WaitReady(socket_, POLLOUT, server_.StopDescriptor()) ==
                                         cms::Readiness::kReady)) {
        continue;
      }
      disconnect_ = true;
      return false;
    }
    const auto count = static_cast<std::size_t>(sent);
    const std::size_t of_head = std::min(count, head.size());
    head.remove_prefix(of_head);
    data.remove_prefix(count - of_head);
  }
  return true;
}

// Priorities above 0 are more urgent. The system may refuse them, which is no failure.
int HttpRequest::SetPriority(int priority) const {
  constexpr int kNicePerStep = 5;
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()),
              -kNicePerStep * std::clamp(priority, -3, 3));
  return 1;
}
