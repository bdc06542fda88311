#include "cms/net/udp_client.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "cms/net/client_group.h"
#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/udp_client_impl.h"

UDPClientBase::UDPClientBase() : impl_(std::make_unique<Impl>()) {}

UDPClientBase::~UDPClientBase() {
  EachClientGroupTable::Instance().Unregister(this);
  UDPClientBase::OnClose();
  UDPClientBase::OnReleaseMemory();
}

void UDPClientBase::SetConfig(_UDPCLIENT_CONFIG& config) {
  const _UDPCLIENT_CONFIG standard;
  const auto use = [](int& size, int otherwise) { size = size > 0 ? size : otherwise; };
  impl_->config = config;
  use(impl_->config.recvQueueDepth, standard.recvQueueDepth);
  use(impl_->config.recvDatagramSize, standard.recvDatagramSize);
  use(impl_->config.sendQueueDepth, standard.sendQueueDepth);
  use(impl_->config.sendDatagramSize, standard.sendDatagramSize);
}

int UDPClientBase::OnCreate() {
  if (!impl_->adopted) {
    impl_->CloseEndpoint();
    const sockaddr_in local = cms::MakeAddress(INADDR_ANY, impl_->config.localPort);
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    impl_->SetSocket(descriptor);
    if (descriptor < 0 ||
        bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
      impl_->SetLastError(errno);
      impl_->running.store(0, std::memory_order_relaxed);
      cms::JoinOwnThreads(*impl_, {&recvThread_, &sendThread_});
      impl_->CloseEndpoint();
      return 0;
    }
  }
  impl_->SetLastError(0);
  if (!impl_->remoteIsSet) {
    impl_->remote =
        cms::SocketAddress(cms::IpAddress(impl_->config.remoteAddress), impl_->config.remotePort);
  }
  impl_->running.store(1, std::memory_order_relaxed);
  return 1;
}

int UDPClientBase::OnClose() {
  impl_->running.store(0, std::memory_order_relaxed);
  cms::JoinOwnThreads(*impl_, {&recvThread_, &sendThread_});
  if (Socket() >= 0) {
    shutdown(Socket(), SHUT_RDWR);
    impl_->CloseEndpoint();
  }
  impl_->adopted = false;
  return 1;
}

void UDPClientBase::AdoptSocket(int descriptor) {
  if (descriptor != Socket()) {
    impl_->CloseEndpoint();
  }
  impl_->SetSocket(descriptor);
  impl_->adopted = descriptor >= 0;
}

void UDPClientBase::SetRemote(const cms::IpAddress& address, std::uint16_t port) {
  impl_->remote = cms::SocketAddress(address, port);
  impl_->remoteIsSet = true;
}

int UDPClientBase::OnAllocateMemory() {
  impl_->queuedReceives.store(0, std::memory_order_relaxed);
  impl_->queuedSends.store(0, std::memory_order_relaxed);
  {
    ScopeLock lock(impl_->sendLock);
    if (impl_->sendQueueMade) {
      impl_->sendQueue.ReleaseBuffer();
      impl_->sendQueueMade = false;
    }
    impl_->sendQueueOpen = true;
  }
  if (impl_->HasCallback()) {
    return 1;
  }
  return impl_->recvQueue.AllocateBuffer(impl_->config.recvQueueDepth,
                                         impl_->config.recvDatagramSize) != 0
             ? 1
             : 0;
}

int UDPClientBase::OnReleaseMemory() {
  impl_->recvQueue.StopBuffer();
  impl_->recvQueue.ReleaseBuffer();
  impl_->queuedReceives.store(0, std::memory_order_relaxed);
  impl_->queuedSends.store(0, std::memory_order_relaxed);
  ScopeLock lock(impl_->sendLock);
  impl_->sendQueueOpen = false;
  if (impl_->sendQueueMade) {
    impl_->sendQueue.StopBuffer();
    impl_->sendQueue.ReleaseBuffer();
    impl_->sendQueueMade = false;
  }
  return 1;
}

int UDPClientBase::OnStartUDPClient() {
  if (OnAllocateMemory() == 0 || OnCreate() == 0) {
    return 0;
  }
  const int flags = fcntl(Socket(), F_GETFL);
  return flags >= 0 && fcntl(Socket(), F_SETFL, flags | O_NONBLOCK) == 0 ? 1 : 0;
}

int UDPClientBase::OnStopUDPClient() {
  EachClientGroupTable::Instance().Unregister(this);
  const int closed = OnClose();
  const int released = OnReleaseMemory();
  return closed != 0 && released != 0 ? 1 : 0;
}

int UDPClientBase::OnSend(char* data, int length) {
  if (data == nullptr || length <= 0) {
    return 0;
  }
  {
    ScopeLock lock(impl_->sendLock);
    if (!impl_->sendQueueOpen) {
      return 0;
    }
    if (!impl_->sendQueueMade) {
      if (impl_->sendQueue.AllocateBuffer(impl_->config.sendQueueDepth,
                                          impl_->config.sendDatagramSize) == 0) {
        return 0;
      }
      impl_->sendQueueMade = true;
    }
    if (impl_->sendQueue.IsBufFull() != 0) {
      return 0;
    }
    length = static_cast<int>(
        impl_->sendQueue.Write(data, std::min(length, impl_->config.sendDatagramSize), 1));
    if (length <= 0) {
      return 0;
    }
    impl_->queuedSends.fetch_add(1, std::memory_order_release);
  }
  impl_->WakeSender();
  return length;
}

int UDPClientBase::OnRecv(char* buffer, int size) {
  if (buffer == nullptr) {
    return 0;
  }
  const auto got = static_cast<int>(impl_->recvQueue.Read(buffer, size));
  if (got > 0) {
    impl_->queuedReceives.fetch_sub(1, std::memory_order_relaxed);
  }
  return got;
}

int UDPClientBase::OnRecvNB(char* buffer, int size) {
  // The count and not IsBufEmpty: a new queue's empty first slot would have the read wait.
  return impl_->queuedReceives.load(std::memory_order_acquire) > 0 ? OnRecv(buffer, size) : 0;
}

int UDPClientBase::SetRecvSocketBuffer(int bytes) {
  return impl_->SetReceiveBuffer(bytes) ? 1 : 0;
}

int UDPClientBase::SetSendSocketBuffer(int bytes) {
  return impl_->SetBufferOption(SO_SNDBUFFORCE, SO_SNDBUF, bytes) ? 1 : 0;
}

int UDPClientBase::SetRecvThrdPriority(int) {
  return recvThread_.joinable() ? 1 : 0;
}

int UDPClientBase::SetSendThrdPriority(int) {
  return sendThread_.joinable() ? 1 : 0;
}

std::uint16_t UDPClientBase::BoundPort() const {
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  return getsockname(Socket(), reinterpret_cast<sockaddr*>(&bound), &size) == 0
             ? ntohs(bound.sin_port)
             : std::uint16_t{0};
}

int UDPClientBase::Socket() const {
  return impl_->Socket();
}

int UDPClientBase::LastSocketError() const {
  return impl_->LastError();
}

cms::SocketEndpoint& UDPClientBase::Endpoint() {
  return *impl_;
}

int UDPClientBase::UDPClientRecv() {
  return impl_->ReceiveStep().bytes;
}

int UDPClientBase::UDPClientSend() {
  return impl_->SendPending();
}
