#include "cms/net/internal/tcp_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/wait_ready.h"

CTcpReceiver::CTcpReceiver(int descriptor, int stop, const cms::tTcpServerConfig& config)
    : socket_(descriptor),
      stop_(stop),
      config_(config),
      scratch_(static_cast<std::size_t>(config.recvFrameSize)) {}

void CTcpReceiver::Run() {
  while (cms::WaitReady(socket_, POLLIN, stop_) == cms::Readiness::kReady) {
    const ssize_t got = recv(socket_, scratch_.data(), scratch_.size(), MSG_DONTWAIT);
    if (got > 0) {
      if (config_.recvCallback != nullptr) {
        config_.recvCallback(config_.recvContext, scratch_.data(), static_cast<int>(got));
      }
    } else if (got == 0 || (!cms::IsWouldBlock(errno) && errno != EINTR)) {
      return;
    }
  }
}
