#include "cms/net/tcp_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "cms/net/internal/listening_socket.h"
#include "cms/net/internal/tcp_ctrl.h"
#include "cms/net/internal/thread_team.h"
#include "cms/net/internal/wait_ready.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/wake_up.h"

namespace {

cms::tTcpServerConfig WithDefaults(cms::tTcpServerConfig config) {
  const cms::tTcpServerConfig defaults;
  if (config.recvFrameSize < 1) {
    config.recvFrameSize = defaults.recvFrameSize;
  }
  if (config.recvQueueDepth < 1) {
    config.recvQueueDepth = defaults.recvQueueDepth;
  }
  return config;
}

}  // namespace

class CTcpServer::Impl {
 public:
  explicit Impl(cms::tTcpServerConfig* config)
      : sharedConfig_(config), config_(WithDefaults(*config)) {}
  ~Impl() { Stop(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool Start();
  void Stop();
  int TotalClients();
  void EnableSend(std::uint32_t address, bool enable);
  int Send(const char* data, int length);
  std::size_t QueuedBytes();

 private:
  void AcceptLoop();
  bool HasRoom() {
    return config_.maximumConnections < 1 || TotalClients() < config_.maximumConnections;
  }
  void Adopt(int descriptor, const sockaddr_in& peer);
  void Serve(CTcpCtrl* connection);

  cms::tTcpServerConfig* const sharedConfig_;
  const cms::tTcpServerConfig config_;
  std::atomic<bool> running_{false};
  int listening_ = -1;  // the accept thread's while that runs
  cms::NamedThread acceptThread_;
  cms::ThreadTeam receivers_;                // a thread for each connection
  std::unique_ptr<cms::WakeUp> stop_;        // signalled for good by Stop; made anew by Start
  std::unique_ptr<cms::WakeUp> acceptWake_;  // a connection has ended, or it is time to end

  CMSCritical connectionsLock_;  // taken before the permissions' lock
  std::vector<std::unique_ptr<CTcpCtrl>> connections_ CMS_GUARDED_BY(connectionsLock_);
  CMSCritical permissionsLock_;
  std::map<std::uint32_t, bool> permissions_ CMS_GUARDED_BY(permissionsLock_);
};

bool CTcpServer::Impl::Start() {
  if (acceptThread_.IsStarted()) {
    return false;
  }
  auto stop = std::make_unique<cms::WakeUp>();
  auto acceptWake = std::make_unique<cms::WakeUp>();
  if (stop->Descriptor() < 0 || acceptWake->Descriptor() < 0) {
    return false;
  }
  const int listening = cms::OpenListeningSocket(0, SOMAXCONN);
  if (listening < 0) {
    return false;
  }
  const sockaddr_in bound = cms::BoundAddress(listening);
  stop_ = std::move(stop);
  acceptWake_ = std::move(acceptWake);
  listening_ = listening;
  running_ = true;
  // Before the thread: its accept callback may read them.
  sharedConfig_->localAddress = ntohl(bound.sin_addr.s_addr);
  sharedConfig_->localPort = ntohs(bound.sin_port);
  if (!acceptThread_.Start("cms-tcp-accept", [this] { AcceptLoop(); })) {
    running_ = false;
    close(std::exchange(listening_, -1));
    return false;
  }
  return true;
}

void CTcpServer::Impl::Stop() {
  if (!acceptThread_.IsStarted()) {
    return;
  }
  running_ = false;
  acceptWake_->Signal();
  acceptThread_.Join();
  stop_->Signal();
  receivers_.WaitAll();
  const ScopeLock lock(permissionsLock_);
  permissions_.clear();
}

void CTcpServer::Impl::AcceptLoop() {
  const int wake = acceptWake_->Descriptor();
  while (running_) {
    sockaddr_in peer{};
    if (!HasRoom()) {
      cms::WaitReady(-1, 0, wake);
    } else if (const int accepted = cms::AcceptNext(listening_, wake, peer); accepted >= 0) {
      Adopt(accepted, peer);
    }
    acceptWake_->Clear();
  }
  close(std::exchange(listening_, -1));
}

void CTcpServer::Impl::Adopt(int descriptor, const sockaddr_in& peer) {
  if (config_.acceptCallback != nullptr) {
    config_.acceptCallback(&peer, static_cast<int>(sizeof peer));
  }
  std::unique_ptr<CTcpCtrl> made;
  try {
    made = std::make_unique<CTcpCtrl>(descriptor, peer, stop_->Descriptor(), config_);
    CTcpCtrl* const connection = made.get();
    EnableSend(connection->PeerAddress(), false);
    if (!connection->Sender().Start()) {
      return;
    }
    // Listed first, for its thread to find it whenever it ends.
    const ScopeLock lock(connectionsLock_);
    connections_.push_back(std::move(made));
    if (!receivers_.Start("cms-tcp-recv", [this, connection] { Serve(connection); })) {
      made = std::move(connections_.back());
      connections_.pop_back();
    }
  } catch (const std::bad_alloc&) {
    if (made == nullptr) {
      close(descriptor);
    }
  }
}

// The thread of a connection, which sees it off.
void CTcpServer::Impl::Serve(CTcpCtrl* connection) {
  connection->Receiver().Run();
  std::unique_ptr<CTcpCtrl> gone;
  {
    const ScopeLock lock(connectionsLock_);
    const auto found = std::ranges::find(connections_, connection, &std::unique_ptr<CTcpCtrl>::get);
    gone = std::move(*found);
    connections_.erase(found);
    const ScopeLock permissions(permissionsLock_);
    permissions_.erase(connection->PeerAddress());
  }
  gone.reset();  // waits for the send thread, which the lock must not be held for
  acceptWake_->Signal();
}

int CTcpServer::Impl::TotalClients() {
  ScopeLock lock(connectionsLock_);
  return static_cast<int>(connections_.size());
}

void CTcpServer::Impl::EnableSend(std::uint32_t address, bool enable) {
  ScopeLock lock(permissionsLock_);
  permissions_[address] = enable;
}

int CTcpServer::Impl::Send(const char* data, int length) {
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

std::size_t CTcpServer::Impl::QueuedBytes() {
  ScopeLock lock(connectionsLock_);
  std::size_t sum = 0;
  for (const std::unique_ptr<CTcpCtrl>& connection : connections_) {
    sum += connection->Sender().QueuedBytes();
  }
  return sum;
}

CTcpServer::CTcpServer(cms::tTcpServerConfig* config) : impl_(std::make_unique<Impl>(config)) {}

CTcpServer::~CTcpServer() = default;

bool CTcpServer::Start() {
  return impl_->Start();
}

void CTcpServer::Stop() {
  impl_->Stop();
}

int CTcpServer::TotalClients() {
  return impl_->TotalClients();
}

void CTcpServer::EnableSend(std::uint32_t address, bool enable) {
  impl_->EnableSend(address, enable);
}

int CTcpServer::Send(const char* data, int length) {
  return impl_->Send(data, length);
}

std::size_t CTcpServer::QueuedBytes() {
  return impl_->QueuedBytes();
}
