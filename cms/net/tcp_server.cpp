#include "cms/net/tcp_server.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "cms/net/internal/listening_socket.h"
#include "cms/net/internal/tcp_ctrl.h"
#include "cms/net/internal/wait_ready.h"

namespace {

// How long to wait for a descriptor or memory to come back.
constexpr std::chrono::milliseconds kExhaustedPause{10};

tTcpServerConfig WithDefaults(tTcpServerConfig config) {
  const tTcpServerConfig defaults;
  if (config.recvFrameSize < 1) {
    config.recvFrameSize = defaults.recvFrameSize;
  }
  if (config.recvQueueDepth < 1) {
    config.recvQueueDepth = defaults.recvQueueDepth;
  }
  return config;
}

}  // namespace

CTcpServer::CTcpServer(tTcpServerConfig* config)
    : sharedConfig_(config), config_(WithDefaults(*config)) {}

CTcpServer::~CTcpServer() {
  Stop();
}

bool CTcpServer::Start() {
  if (acceptThread_.joinable()) {
    return false;
  }
  auto stop = std::make_unique<cms::WakeUp>();
  auto accept_wake = std::make_unique<cms::WakeUp>();
  if (stop->Descriptor() < 0 || accept_wake->Descriptor() < 0) {
    return false;
  }
  const int listening = cms::OpenListeningSocket(0, SOMAXCONN);
  if (listening < 0) {
    return false;
  }
  const sockaddr_in bound = cms::BoundAddress(listening);
  stop_ = std::move(stop);
  acceptWake_ = std::move(accept_wake);
  listening_ = listening;
  running_ = true;
  // Before the thread: its accept callback may read them.
  sharedConfig_->localAddress = ntohl(bound.sin_addr.s_addr);
  sharedConfig_->localPort = ntohs(bound.sin_port);
  try {
    acceptThread_ = std::thread(&CTcpServer::AcceptLoop, this);
  } catch (const std::system_error&) {
    running_ = false;
    close(std::exchange(listening_, -1));
    return false;
  }
  return true;
}

void CTcpServer::Stop() {
  if (!acceptThread_.joinable()) {
    return;
  }
  running_ = false;
  acceptWake_->Signal();
  acceptThread_.join();
  stop_->Signal();
  // Connections that end by themselves just now move from the one list to the other; their threads
  // take the lock for that, so it is not held while they are waited for.
  std::vector<std::unique_ptr<CTcpCtrl>> connections;
  {
    ScopeLock lock(connectionsLock_);
    connections.swap(connections_);
  }
  connections.clear();
  BuryEnded();
  ScopeLock lock(permissionsLock_);
  permissions_.clear();
}

void CTcpServer::AcceptLoop() {
  pthread_setname_np(pthread_self(), "cms-tcp-accept");
  const int wake = acceptWake_->Descriptor();
  while (running_) {
    if (!HasRoom()) {
      cms::WaitReady(-1, 0, wake);
      acceptWake_->Clear();
      BuryEnded();
      continue;
    }
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const int accepted =
        accept4(listening_, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    if (accepted >= 0) {
      Adopt(accepted, peer);
    } else if (cms::WhyAcceptFailed(errno) == cms::AcceptFailure::kTryAgain) {
      cms::WaitReady(listening_, POLLIN, wake);
    } else {
      cms::WaitReady(-1, 0, wake, kExhaustedPause);
    }
    acceptWake_->Clear();
    BuryEnded();
  }
  close(std::exchange(listening_, -1));
}

void CTcpServer::Adopt(int descriptor, const sockaddr_in& peer) {
  if (config_.acceptCallback != nullptr) {
    config_.acceptCallback(&peer, static_cast<int>(sizeof peer));
  }
  std::unique_ptr<CTcpCtrl> made;
  try {
    made = std::make_unique<CTcpCtrl>(*this, descriptor, peer);
    EnableSend(made->PeerAddress(), false);
    CTcpCtrl* const connection = made.get();
    // Listed first, for the receive thread to be found whenever it ends.
    ScopeLock lock(connectionsLock_);
    connections_.push_back(std::move(made));
    if (!connection->Start()) {
      made = std::move(connections_.back());
      connections_.pop_back();
    }
  } catch (const std::bad_alloc&) {
    if (made == nullptr) {
      close(descriptor);
    }
  }
}

void CTcpServer::Remove(CTcpCtrl* connection) {
  ScopeLock lock(connectionsLock_);
  const auto found =
      std::find_if(connections_.begin(), connections_.end(),
                   [&](const std::unique_ptr<CTcpCtrl>& one) { return one.get() == connection; });
  if (found == connections_.end()) {
    return;  // the server is stopping and has taken it
  }
  ended_.push_back(std::move(*found));
  connections_.erase(found);
  {
    ScopeLock permissions(permissionsLock_);
    permissions_.erase(connection->PeerAddress());
  }
  acceptWake_->Signal();
}

void CTcpServer::BuryEnded() {
  std::vector<std::unique_ptr<CTcpCtrl>> ended;
  ScopeLock lock(connectionsLock_);
  ended.swap(ended_);
  lock.UnLock();
}

bool CTcpServer::HasRoom() {
  return config_.maximumConnections < 1 || TotalClients() < config_.maximumConnections;
}

int CTcpServer::TotalClients() {
  ScopeLock lock(connectionsLock_);
  return static_cast<int>(connections_.size());
}

void CTcpServer::EnableSend(std::uint32_t address, bool enable) {
  ScopeLock lock(permissionsLock_);
  permissions_[address] = enable;
}

int CTcpServer::Send(const char* data, int length) {
  if (data == nullptr || length < 1) {
    return 0;
  }
  CTcpSender::Block block;
  int result = 0;
  ScopeLock lock(connectionsLock_);
  ScopeLock permissions(permissionsLock_);
  for (const std::unique_ptr<CTcpCtrl>& connection : connections_) {
    const auto found = permissions_.find(connection->PeerAddress());
    if (found == permissions_.end() || !found->second) {
      continue;
    }
    if (block == nullptr) {
      block = std::make_shared<const std::string>(data, static_cast<std::size_t>(length));
    }
    result = connection->Sender().Queue(block);
  }
  return result;
}

std::size_t CTcpServer::QueuedBytes() {
  ScopeLock lock(connectionsLock_);
  std::size_t sum = 0;
  for (const std::unique_ptr<CTcpCtrl>& connection : connections_) {
    sum += connection->Sender().QueuedBytes();
  }
  return sum;
}
