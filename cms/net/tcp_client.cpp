#include "cms/net/tcp_client.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "cms/net/client_group.h"
#include "cms/net/internal/connect.h"
#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_address.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/tcp_client_impl.h"
#include "cms/net/tls_parameters.h"

// The constructors' virtual calls reach this class's own operations, which is what they are for.
TCPClientBase::TCPClientBase() : impl_(std::make_unique<Impl>(*this)) {
  TCPClientBase::OnInitialVariable();
}

TCPClientBase::TCPClientBase(tTcpClientParam param) : impl_(std::make_unique<Impl>(*this)) {
  TCPClientBase::OnInitialVariable(param);
}

TCPClientBase::~TCPClientBase() {
  // Unregistering comes first: the I/O threads use what is freed next.
  EachClientGroupTable::Instance().Unregister(this);
  impl_->running.store(0, std::memory_order_relaxed);
  cms::JoinOwnThreads(*impl_, {&recvThread_, &sendThread_});
  TCPClientBase::OnReleaseMemory();
  CloseSocket();
}

int TCPClientBase::OnInitialVariable() {
  return TCPClientBase::OnInitialVariable(tTcpClientParam{});
}

int TCPClientBase::OnInitialVariable(tTcpClientParam param) {
  const tTcpClientParam standard;
  const auto size = [](int given, int otherwise) { return given > 0 ? given : otherwise; };
  param.recvQueueDepth = size(param.recvQueueDepth, standard.recvQueueDepth);
  param.recvChunkSize = size(param.recvChunkSize, standard.recvChunkSize);
  param.sendQueueDepth = size(param.sendQueueDepth, standard.sendQueueDepth);
  param.sendChunkSize = size(param.sendChunkSize, standard.sendChunkSize);
  impl_->param = param;
  impl_->running.store(1, std::memory_order_relaxed);
  impl_->connected.store(0, std::memory_order_relaxed);
  impl_->remoteAddress = 0;
  impl_->remotePort = 0;
  impl_->sendScratch.reset();
  CloseSocket();
  return OnAllocateMemory();
}

int TCPClientBase::OnAllocateMemory() {
  const auto ring =
      static_cast<std::int64_t>(impl_->param.sendQueueDepth) * impl_->param.sendChunkSize;
  if (ring > std::numeric_limits<int>::max()) {
    return 0;
  }
  // Nothing is queued for OnRecv while a callback takes the bytes, so that mode has no queue.
  if (impl_->param.recvCallback == nullptr &&
      impl_->recvQueue.AllocateBuffer(impl_->param.recvQueueDepth, impl_->param.recvChunkSize) ==
          0) {
    return 0;
  }
  impl_->sendScratch.reset(
      new (std::nothrow) char[static_cast<std::size_t>(impl_->param.sendChunkSize)]());
  ScopeLock lock(impl_->sendLock);
  impl_->sendRing.reset(new (std::nothrow) CSimpleBuffer);
  impl_->sendRingUsed = 0;
  impl_->pendingSendLength = 0;
  impl_->sendRingSize = static_cast<int>(ring);
  if (impl_->sendScratch == nullptr || impl_->sendRing == nullptr ||
      impl_->sendRing->AllocateBuffer(impl_->param.sendQueueDepth, impl_->param.sendChunkSize) ==
          0) {
    impl_->sendRing.reset();
    return 0;
  }
  return 1;
}

int TCPClientBase::OnReleaseMemory() {
  impl_->recvQueue.StopBuffer();
  impl_->recvQueue.ReleaseBuffer();
  impl_->sendScratch.reset();
  ScopeLock lock(impl_->sendLock);
  impl_->sendRing.reset();
  impl_->sendRingUsed = 0;
  impl_->pendingSendLength = 0;
  return 1;
}

int TCPClientBase::OnConnect(unsigned long address, unsigned long port) {
  return ConnectSocket(address, port, -1, nullptr);
}

int TCPClientBase::ConnectSocket(unsigned long address, unsigned long port, int timeoutMilliseconds,
                                 const cms::WakeUp* cancel) {
  return ConnectSocket(cms::IpAddress(static_cast<std::uint32_t>(address)), port,
                       timeoutMilliseconds, cancel);
}

int TCPClientBase::ConnectSocket(const cms::IpAddress& address, unsigned long port,
                                 int timeoutMilliseconds, const cms::WakeUp* cancel) {
  CloseSocket();
  impl_->SetLastError(0);
  impl_->remoteAddress = address.V4();
  impl_->remotePort = port;
  if (port > std::numeric_limits<std::uint16_t>::max()) {
    impl_->SetLastError(EINVAL);
    return 0;
  }
  const cms::SocketAddress remote(address, static_cast<std::uint16_t>(port));
  const int descriptor =
      socket(cms::FamilyOf(address), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    impl_->SetLastError(errno);
    return 0;
  }
  impl_->SetSocket(descriptor);
  const int error = cms::ConnectWithin(descriptor, remote, timeoutMilliseconds, cancel);
  if (error != 0) {
    CloseSocket();
    impl_->SetLastError(error);
    return 0;
  }
  // Requests are small and answered one by one; waiting to fill segments would only delay them.
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  impl_->peerClosed = false;
  impl_->ResumeReceiver();
  impl_->sendFailed.store(false, std::memory_order_relaxed);
  impl_->connected.store(1, std::memory_order_relaxed);
  return 1;
}

cms::TlsResult TCPClientBase::SecureSocket(const cms::TlsParameters& parameters,
                                           int timeoutMilliseconds, const cms::WakeUp* cancel) {
  cms::TlsResult result;
  impl_->tls = cms::TlsStream::Connect(Socket(), parameters, timeoutMilliseconds, cancel, &result);
  return result;
}

int TCPClientBase::OnStartTCPClient(unsigned long address, unsigned long port, unsigned int group) {
  if (OnConnect(address, port) == 0) {
    return 0;
  }
  {
    ScopeLock lock(impl_->sendLock);
    impl_->pendingSendLength = 0;
  }
  impl_->running.store(1, std::memory_order_relaxed);
  if (group != cms::kNoIoGroup &&
      EachClientGroupTable::Instance().Register(this, static_cast<int>(group)) == 0) {
    CloseSocket();
    return 0;
  }
  return 1;
}

int TCPClientBase::OnStopTCPClient(bool closeSocket) {
  impl_->running.store(0, std::memory_order_relaxed);
  EachClientGroupTable::Instance().Unregister(this);
  if (closeSocket && !recvThread_.joinable() && !sendThread_.joinable()) {
    CloseSocket();
  }
  cms::JoinOwnThreads(*impl_, {&recvThread_, &sendThread_});
  if (closeSocket) {
    CloseSocket();  // after the stand-alone threads, which use it until they end
  }
  return 1;
}

int TCPClientBase::OnSend(char* data, int length) {
  if (data == nullptr || length <= 0) {
    return 0;
  }
  int accepted = 0;
  {
    ScopeLock lock(impl_->sendLock);
    if (impl_->sendRing == nullptr) {
      return 0;
    }
    // The ring itself would take a write that fills it to its last byte for an empty ring.
    const int room = impl_->sendRingSize - 1 - impl_->sendRingUsed;
    if (room > 0) {
      accepted = impl_->sendRing->Write(data, std::min(length, room));
      impl_->sendRingUsed += accepted;
    }
  }
  if (accepted > 0) {
    impl_->WakeSender();
  }
  return accepted;
}

int TCPClientBase::OnRecv(char* buffer, int size) {
  if (buffer == nullptr || size <= 0 || impl_->param.recvCallback != nullptr) {
    return 0;
  }
  int got = 0;
  if (size >= impl_->param.recvChunkSize) {
    got = static_cast<int>(impl_->recvQueue.Read(buffer, impl_->param.recvChunkSize));
  } else {
    const std::unique_ptr<char[]> frame(
        new (std::nothrow) char[static_cast<std::size_t>(impl_->param.recvChunkSize)]);
    if (frame == nullptr) {
      return 0;
    }
    got = static_cast<int>(impl_->recvQueue.Read(frame.get(), impl_->param.recvChunkSize));
    got = std::clamp(got, 0, size);
    std::memcpy(buffer, frame.get(), static_cast<std::size_t>(got));
  }
  // The step set the flag with the queue's count lock held, which the read has taken since.
  if (!impl_->WantsReceive() && !impl_->peerClosed.load() && !impl_->QueueIsFull()) {
    impl_->ResumeReceiver();
  }
  return got;
}

int TCPClientBase::Socket() const {
  return impl_->Socket();
}

int TCPClientBase::LastSocketError() const {
  return impl_->LastError();
}

cms::SocketEndpoint& TCPClientBase::Endpoint() {
  return *impl_;
}

unsigned long TCPClientBase::RemoteAddress() const {
  return impl_->remoteAddress;
}

unsigned long TCPClientBase::RemotePort() const {
  return impl_->remotePort;
}

bool TCPClientBase::WaitForData(int milliseconds) {
  return impl_->recvQueue.WaitForFrame(milliseconds);
}

int TCPClientBase::IsConnecting() {
  return impl_->connected.load(std::memory_order_relaxed);
}

void TCPClientBase::OnPeerClosed() {}

int TCPClientBase::IsDataAvail() {
  return impl_->param.recvCallback == nullptr && !impl_->recvQueue.IsBufEmpty() ? 1 : 0;
}

int TCPClientBase::SetRecvThrdPriority(int) {
  return recvThread_.joinable() ? 1 : 0;
}

int TCPClientBase::SetSendThrdPriority(int) {
  return sendThread_.joinable() ? 1 : 0;
}

int TCPClientBase::TCPClientRecv() {
  return impl_->ReceiveStep().bytes;
}

int TCPClientBase::TCPClientSend() {
  return impl_->SendOnce();
}

int TCPClientBase::NBLSend(int descriptor, const char* data, int length) {
  for (;;) {
    const auto sent = impl_->tls != nullptr
                          ? impl_->tls->Send(data, std::max(length, 0))
                          : send(descriptor, data, static_cast<std::size_t>(std::max(length, 0)),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      return static_cast<int>(sent);
    }
    if (errno != EINTR) {
      if (cms::IsWouldBlock(errno)) {
        return 0;
      }
      impl_->SetLastError(errno);
      return -1;
    }
  }
}

int TCPClientBase::Send(int descriptor, const char* data, int length) {
  while (length > 0) {
    const auto sent = send(descriptor, data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    if (sent > 0) {
      data += sent;
      length -= static_cast<int>(sent);
    } else if (sent == 0) {
      return 0;
    } else if (cms::IsWouldBlock(errno)) {
      cms::WaitSocket(descriptor, POLLOUT, -1);
    } else if (errno != EINTR) {
      impl_->SetLastError(errno);
      return -1;
    }
  }
  return 0;
}

int TCPClientBase::Recv(int descriptor, char* buffer, int length) {
  for (;;) {
    const auto got = recv(descriptor, buffer, static_cast<std::size_t>(std::max(length, 0)), 0);
    if (got >= 0) {
      return static_cast<int>(got);
    }
    if (errno != EINTR) {
      if (!cms::IsWouldBlock(errno)) {
        impl_->SetLastError(errno);
      }
      return -1;
    }
  }
}

int TCPClientBase::CloseSocket() {
  impl_->connected.store(0, std::memory_order_relaxed);
  impl_->tls.reset();  // it says goodbye over the socket
  return impl_->CloseEndpoint() ? 1 : 0;
}
