#include "cms/net/internal/tcp_sender.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <string_view>

#include "cms/net/internal/wait_ready.h"

CTcpSender::CTcpSender(int descriptor, int stop, const cms::tTcpServerConfig& config)
    : socket_(descriptor),
      stop_(stop),
      capacity_(static_cast<std::size_t>(config.recvFrameSize) *
                static_cast<std::size_t>(config.recvQueueDepth)) {}

bool CTcpSender::Start() {
  running_ = true;
  if (!thread_.Start("cms-tcp-send", [this] { Run(); })) {
    running_ = false;
  }
  return running_;
}

void CTcpSender::Stop() {
  running_ = false;
  filled_.Set();
  thread_.Join();
}

int CTcpSender::Queue(const Block& block) {
  ScopeLock lock(lock_);
  if (block->size() > capacity_ - queued_) {
    return 0;
  }
  queue_.push_back(block);
  queued_ += block->size();
  filled_.Set();
  return static_cast<int>(block->size());
}

std::size_t CTcpSender::QueuedBytes() {
  ScopeLock lock(lock_);
  return queued_;
}

void CTcpSender::Run() {
  while (running_) {
    filled_.Wait();
    Block block;
    {
      ScopeLock lock(lock_);
      if (queue_.empty()) {
        filled_.Reset();
        continue;
      }
      block = std::move(queue_.front());
      queue_.pop_front();
    }
    if (!SendAll(*block)) {
      // The receive thread notices the end of the socket, and sees to the rest.
      shutdown(socket_, SHUT_RDWR);
      return;
    }
    ScopeLock lock(lock_);
    queued_ -= block->size();
  }
}

bool CTcpSender::SendAll(const std::string& bytes) {
  std::string_view left = bytes;
  while (!left.empty()) {
    const ssize_t sent = send(socket_, left.data(), left.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      left.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (cms::WaitReady(socket_, POLLOUT, stop_) != cms::Readiness::kReady) {
        return false;
      }
    } else if (errno != EINTR) {
      return false;
    }
    if (!running_) {
      return false;
    }
  }
  return true;
}
