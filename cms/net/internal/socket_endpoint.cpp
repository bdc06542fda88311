#include "cms/net/internal/socket_endpoint.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "cms/net/internal/io_signal.h"

namespace cms {

void SocketEndpoint::WakeSender() {
  ScopeLock lock(signalLock_);
  if (sendSignal_ != nullptr) {
    sendSignal_->Wake();
  }
}

void SocketEndpoint::ResumeReceiver() {
  if (wantsReceive_.exchange(true, std::memory_order_relaxed)) {
    return;
  }
  ScopeLock lock(signalLock_);
  if (receiveSignal_ != nullptr) {
    receiveSignal_->Change();
  }
}

bool SocketEndpoint::CloseEndpoint() {
  const int descriptor = socket_.exchange(-1, std::memory_order_relaxed);
  return descriptor >= 0 && close(descriptor) == 0;
}

bool SocketEndpoint::SetBufferOption(int forced, int option, int bytes) {
  // The forced option goes past the system's limit, where the process has the right to.
  const int descriptor = Socket();
  return descriptor >= 0 &&
         (setsockopt(descriptor, SOL_SOCKET, forced, &bytes, sizeof bytes) == 0 ||
          setsockopt(descriptor, SOL_SOCKET, option, &bytes, sizeof bytes) == 0);
}

void SocketEndpoint::SetReceiveSignal(std::shared_ptr<IoSignal> signal) {
  if (signal == nullptr) {
    unregistrations_.fetch_add(1, std::memory_order_relaxed);
  }
  ScopeLock lock(signalLock_);
  receiveSignal_ = std::move(signal);
}

void SocketEndpoint::SetSendSignal(std::shared_ptr<IoSignal> signal) {
  ScopeLock lock(signalLock_);
  sendSignal_ = std::move(signal);
}

}  // namespace cms
