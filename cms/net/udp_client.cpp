#include "cms/net/udp_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "cms/net/client_group.h"
#include "cms/net/internal/datagram_batch.h"
#include "cms/net/internal/socket_io.h"
#include "cms/runtime/clock.h"

namespace {

constexpr int kDatagramsPerStep = 200;
// This many in one step have the receive thread look again at once, before the socket's buffer
// overflows.
constexpr int kBurstDatagrams = 32;
constexpr std::uint64_t kSendStepMilliseconds = 31;

}  // namespace

UDPClientBase::UDPClientBase() = default;

UDPClientBase::~UDPClientBase() {
  EachClientGroupTable::Instance().Unregister(this);
  UDPClientBase::OnClose();
  UDPClientBase::OnReleaseMemory();
}

void UDPClientBase::SetConfig(_UDPCLIENT_CONFIG& config) {
  const _UDPCLIENT_CONFIG standard;
  const auto use = [](int& size, int otherwise) { size = size > 0 ? size : otherwise; };
  config_ = config;
  use(config_.recvQueueDepth, standard.recvQueueDepth);
  use(config_.recvDatagramSize, standard.recvDatagramSize);
  use(config_.sendQueueDepth, standard.sendQueueDepth);
  use(config_.sendDatagramSize, standard.sendDatagramSize);
}

int UDPClientBase::OnCreate() {
  if (!adopted_) {
    CloseEndpoint();
    local_ = cms::MakeAddress(INADDR_ANY, config_.localPort);
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    SetSocket(descriptor);
    if (descriptor < 0 ||
        bind(descriptor, reinterpret_cast<const sockaddr*>(&local_), sizeof local_) != 0) {
      SetLastError(errno);
      running_.store(0, std::memory_order_relaxed);
      JoinThreads();
      CloseEndpoint();
      return 0;
    }
  }
  SetLastError(0);
  remote_ = cms::MakeAddress(config_.remoteAddress, config_.remotePort);
  running_.store(1, std::memory_order_relaxed);
  return 1;
}

int UDPClientBase::OnClose() {
  running_.store(0, std::memory_order_relaxed);
  JoinThreads();
  if (Socket() >= 0) {
    shutdown(Socket(), SHUT_RDWR);
    CloseEndpoint();
  }
  adopted_ = false;
  return 1;
}

void UDPClientBase::AdoptSocket(int descriptor) {
  if (descriptor != Socket()) {
    CloseEndpoint();
  }
  SetSocket(descriptor);
  adopted_ = descriptor >= 0;
}

int UDPClientBase::OnAllocateMemory() {
  queuedReceives_.store(0, std::memory_order_relaxed);
  queuedSends_.store(0, std::memory_order_relaxed);
  {
    ScopeLock lock(sendLock_);
    if (sendQueueMade_) {
      sendQueue_.ReleaseBuffer();
      sendQueueMade_ = false;
    }
    sendQueueOpen_ = true;
  }
  if (config_.recvCallback != nullptr && config_.recvContext != nullptr) {
    return 1;
  }
  return recvQueue_.AllocateBuffer(config_.recvQueueDepth, config_.recvDatagramSize) != 0 ? 1 : 0;
}

int UDPClientBase::OnReleaseMemory() {
  recvQueue_.StopBuffer();
  recvQueue_.ReleaseBuffer();
  queuedReceives_.store(0, std::memory_order_relaxed);
  queuedSends_.store(0, std::memory_order_relaxed);
  ScopeLock lock(sendLock_);
  sendQueueOpen_ = false;
  if (sendQueueMade_) {
    sendQueue_.StopBuffer();
    sendQueue_.ReleaseBuffer();
    sendQueueMade_ = false;
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
    ScopeLock lock(sendLock_);
    if (!sendQueueOpen_) {
      return 0;
    }
    if (!sendQueueMade_) {
      if (sendQueue_.AllocateBuffer(config_.sendQueueDepth, config_.sendDatagramSize) == 0) {
        return 0;
      }
      sendQueueMade_ = true;
    }
    if (sendQueue_.IsBufFull() != 0) {
      return 0;
    }
    length =
        static_cast<int>(sendQueue_.Write(data, std::min(length, config_.sendDatagramSize), 1));
    if (length <= 0) {
      return 0;
    }
    queuedSends_.fetch_add(1, std::memory_order_release);
  }
  WakeSender();
  return length;
}

int UDPClientBase::OnRecv(char* buffer, int size) {
  if (buffer == nullptr) {
    return 0;
  }
  const auto got = static_cast<int>(recvQueue_.Read(buffer, size));
  if (got > 0) {
    queuedReceives_.fetch_sub(1, std::memory_order_relaxed);
  }
  return got;
}

int UDPClientBase::OnRecvNB(char* buffer, int size) {
  // The count and not IsBufEmpty: a new queue's empty first slot would have the read wait.
  return queuedReceives_.load(std::memory_order_acquire) > 0 ? OnRecv(buffer, size) : 0;
}

int UDPClientBase::SetRecvSocketBuffer(int bytes) {
  return SetBufferOption(SO_RCVBUFFORCE, SO_RCVBUF, bytes);
}

int UDPClientBase::SetSendSocketBuffer(int bytes) {
  return SetBufferOption(SO_SNDBUFFORCE, SO_SNDBUF, bytes);
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

void UDPClientBase::Deliver(char* data, int length) {
  if (config_.recvCallback != nullptr && config_.recvContext != nullptr) {
    config_.recvCallback(config_.recvContext, data, length);
  } else if (length <= config_.recvDatagramSize && recvQueue_.Write(data, length, 1) > 0) {
    queuedReceives_.fetch_add(1, std::memory_order_release);
  }
}

int UDPClientBase::UDPClientRecv() {
  ReceiveStep step(*this);
  cms::DatagramBatch& batch = cms::DatagramBatch::OfThisThread();
  int total = 0;
  for (int taken = 0; taken < kDatagramsPerStep;) {
    const int descriptor = Socket();
    if (descriptor < 0) {
      return taken == 0 ? -1 : total;  // a callback may have closed it
    }
    const int wanted = std::min(kDatagramsPerStep - taken, cms::DatagramBatch::kDatagrams);
    const int count = batch.Receive(descriptor, wanted);
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      if (cms::IsWouldBlock(errno)) {
        return total;
      }
      SetLastError(errno);
      return -1;
    }
    for (int i = 0; i < count; ++i) {
      total += batch.Length(i);
      Deliver(batch.Data(i), batch.Length(i));
      if (step.IsCancelled()) {
        return total;
      }
    }
    taken += count;
    if (taken >= kBurstDatagrams) {
      step.NoteBurst();
    }
    if (count < wanted) {
      return total;  // the socket is empty
    }
  }
  return total;
}

int UDPClientBase::SendOne(int descriptor) {
  static thread_local std::vector<char> datagram;
  const int size = config_.sendDatagramSize;
  if (datagram.size() < static_cast<std::size_t>(size)) {
    datagram.resize(static_cast<std::size_t>(size));
  }
  auto length = static_cast<int>(sendQueue_.Read(datagram.data(), size));
  if (length <= 0) {  // the empty slot that a new queue starts with
    length = static_cast<int>(sendQueue_.Read(datagram.data(), size));
  }
  queuedSends_.fetch_sub(1, std::memory_order_relaxed);
  if (length <= 0) {
    return 0;
  }
  const auto sent = sendto(descriptor, datagram.data(), static_cast<std::size_t>(length),
                           MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&remote_),
                           sizeof remote_);
  if (sent >= 0) {
    return static_cast<int>(sent);
  }
  if (cms::IsWouldBlock(errno) || errno == ENOBUFS || errno == EINTR) {
    return 0;
  }
  SetLastError(errno);
  return -1;
}

int UDPClientBase::UDPClientSend() {
  const int descriptor = Socket();
  if (descriptor < 0) {
    return -1;
  }
  const std::uint64_t start = cms::TickMilliseconds();
  sendWouldBlock_ = false;
  int total = 0;
  while (HasPendingSend() && cms::TickMilliseconds() - start < kSendStepMilliseconds) {
    if (!cms::WaitSocket(descriptor, POLLOUT, 0)) {
      sendWouldBlock_ = true;
      return total;
    }
    const int sent = SendOne(descriptor);
    if (sent < 0) {
      return -1;
    }
    total += sent;
  }
  return total;
}
