#include "cms/net/internal/tcp_receiver.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "cms/net/internal/wait_ready.h"

CTcpReceiver::CTcpReceiver(int descriptor, int stop, const tTcpServerConfig& config)
    : socket_(descriptor),
      stop_(stop),
      config_(config),
      scratch_(static_cast<std::size_t>(config.recvFrameSize)) {}

bool CTcpReceiver::Start(std::function<void()> on_gone) {
  onGone_ = std::move(on_gone);
  running_ = true;
  try {
    thread_ = std::thread(&CTcpReceiver::Run, this);
  } catch (const std::system_error&) {
    running_ = false;
  }
  return running_;
}

void CTcpReceiver::Stop() {
  running_ = false;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void CTcpReceiver::Run() {
  pthread_setname_np(pthread_self(), "cms-tcp-recv");
  while (running_ && cms::WaitReady(socket_, POLLIN, stop_) == cms::Readiness::kReady) {
    const ssize_t got = recv(socket_, scratch_.data(), scratch_.size(), MSG_DONTWAIT);
    if (got > 0) {
      if (config_.recvCallback != nullptr) {
        config_.recvCallback(config_.recvContext, scratch_.data(), static_cast<int>(got));
      }
    } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      break;
    }
  }
  if (running_.exchange(false)) {
    onGone_();
  }
}
