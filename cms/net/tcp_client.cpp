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
#include "cms/net/internal/socket_io.h"

namespace {

constexpr int kReadsPerStep = 200;
// A step that took this much in one go has the receive thread look again at once: more is coming.
constexpr int kBurstBytes = 64 * 1024;

}  // namespace

// The constructors' virtual calls reach this class's own operations, which is what they are for.
TCPClientBase::TCPClientBase() {
  TCPClientBase::OnInitialVariable();
}

TCPClientBase::TCPClientBase(tTcpClientParam param) {
  TCPClientBase::OnInitialVariable(param);
}

TCPClientBase::~TCPClientBase() {
  // Unregistering comes first: the I/O threads use what is freed next.
  EachClientGroupTable::Instance().Unregister(this);
  running_.store(0, std::memory_order_relaxed);
  JoinThreads();
  TCPClientBase::OnReleaseMemory();
  CloseSocket();
}

int TCPClientBase::OnInitialVariable() {
  return TCPClientBase::OnInitialVariable(tTcpClientParam{});
}

int TCPClientBase::OnInitialVariable(tTcpClientParam param) {
  const tTcpClientParam standard;
  const auto size = [](int given, int otherwise) { return given > 0 ? given : otherwise; };
  recvQueueDepth_ = size(param.recvQueueDepth, standard.recvQueueDepth);
  recvChunkSize_ = size(param.recvChunkSize, standard.recvChunkSize);
  sendQueueDepth_ = size(param.sendQueueDepth, standard.sendQueueDepth);
  sendChunkSize_ = size(param.sendChunkSize, standard.sendChunkSize);
  recvCallback_ = param.recvCallback;
  recvContext_ = param.recvContext;
  running_.store(1, std::memory_order_relaxed);
  connected_.store(0, std::memory_order_relaxed);
  remoteAddress_ = 0;
  remotePort_ = 0;
  remote_ = {};
  recvScratch_.reset();
  sendScratch_.reset();
  CloseSocket();
  return OnAllocateMemory();
}

int TCPClientBase::OnAllocateMemory() {
  const auto ring = static_cast<std::int64_t>(sendQueueDepth_) * sendChunkSize_;
  if (ring > std::numeric_limits<int>::max()) {
    return 0;
  }
  // Nothing is queued for OnRecv while a callback takes the bytes, so that mode has no queue.
  if (recvCallback_ == nullptr && recvQueue_.AllocateBuffer(recvQueueDepth_, recvChunkSize_) == 0) {
    return 0;
  }
  recvScratch_.reset(new (std::nothrow) char[static_cast<std::size_t>(recvChunkSize_)]());
  sendScratch_.reset(new (std::nothrow) char[static_cast<std::size_t>(sendChunkSize_)]());
  ScopeLock lock(sendLock_);
  sendRing_.reset(new (std::nothrow) CSimpleBuffer);
  sendRingUsed_ = 0;
  pendingSendLength_ = 0;
  sendRingSize_ = static_cast<int>(ring);
  if (recvScratch_ == nullptr || sendScratch_ == nullptr || sendRing_ == nullptr ||
      sendRing_->AllocateBuffer(sendQueueDepth_, sendChunkSize_) == 0) {
    sendRing_.reset();
    return 0;
  }
  return 1;
}

int TCPClientBase::OnReleaseMemory() {
  recvQueue_.StopBuffer();
  recvQueue_.ReleaseBuffer();
  recvScratch_.reset();
  sendScratch_.reset();
  ScopeLock lock(sendLock_);
  sendRing_.reset();
  sendRingUsed_ = 0;
  pendingSendLength_ = 0;
  return 1;
}

int TCPClientBase::OnConnect(unsigned long address, unsigned long port) {
  return ConnectSocket(address, port, -1, nullptr);
}

int TCPClientBase::ConnectSocket(unsigned long address, unsigned long port, int timeoutMilliseconds,
                                 cms::WakeUp* cancel) {
  CloseSocket();
  SetLastError(0);
  remoteAddress_ = static_cast<std::uint32_t>(address);
  remotePort_ = port;
  if (port > std::numeric_limits<std::uint16_t>::max()) {
    SetLastError(EINVAL);
    return 0;
  }
  remote_ = cms::MakeAddress(remoteAddress_, static_cast<std::uint16_t>(port));
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    SetLastError(errno);
    return 0;
  }
  SetSocket(descriptor);
  const int error = cms::ConnectWithin(descriptor, remote_, timeoutMilliseconds, cancel);
  if (error != 0) {
    CloseSocket();
    SetLastError(error);
    return 0;
  }
  // Requests are small and answered one by one; waiting to fill segments would only delay them.
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  peerClosed_ = false;
  wantsReceive_.store(true, std::memory_order_relaxed);
  sendFailed_.store(false, std::memory_order_relaxed);
  connected_.store(1, std::memory_order_relaxed);
  return 1;
}

int TCPClientBase::OnStartTCPClient(unsigned long address, unsigned long port, unsigned int group) {
  if (OnConnect(address, port) == 0) {
    return 0;
  }
  {
    ScopeLock lock(sendLock_);
    pendingSendLength_ = 0;
  }
  running_.store(1, std::memory_order_relaxed);
  if (group != kNoIoGroup &&
      EachClientGroupTable::Instance().Register(this, static_cast<int>(group)) == 0) {
    CloseSocket();
    return 0;
  }
  return 1;
}

int TCPClientBase::OnStopTCPClient(bool closeSocket) {
  running_.store(0, std::memory_order_relaxed);
  EachClientGroupTable::Instance().Unregister(this);
  if (closeSocket && !recvThread_.joinable() && !sendThread_.joinable()) {
    CloseSocket();
  }
  JoinThreads();
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
    ScopeLock lock(sendLock_);
    if (sendRing_ == nullptr) {
      return 0;
    }
    // The ring itself would take a write that fills it to its last byte for an empty ring.
    const int room = sendRingSize_ - 1 - sendRingUsed_;
    if (room > 0) {
      accepted = sendRing_->Write(data, std::min(length, room));
      sendRingUsed_ += accepted;
    }
  }
  if (accepted > 0) {
    WakeSender();
  }
  return accepted;
}

int TCPClientBase::OnRecv(char* buffer, int size) {
  if (buffer == nullptr || size <= 0 || recvCallback_ != nullptr) {
    return 0;
  }
  int got = 0;
  if (size >= recvChunkSize_) {
    got = static_cast<int>(recvQueue_.Read(buffer, recvChunkSize_));
  } else {
    const std::unique_ptr<char[]> frame(
        new (std::nothrow) char[static_cast<std::size_t>(recvChunkSize_)]);
    if (frame == nullptr) {
      return 0;
    }
    got = static_cast<int>(recvQueue_.Read(frame.get(), recvChunkSize_));
    got = std::clamp(got, 0, size);
    std::memcpy(buffer, frame.get(), static_cast<std::size_t>(got));
  }
  // The step set the flag with the queue's count lock held, which the read has taken since.
  if (!wantsReceive_.load(std::memory_order_relaxed) && !peerClosed_.load() && !QueueIsFull() &&
      !wantsReceive_.exchange(true, std::memory_order_relaxed)) {
    ResumeReceiver();
  }
  return got;
}

// Also while another thread releases the queue, which then counts as full.
bool TCPClientBase::QueueIsFull() {
  recvQueue_.Lock();
  const bool full = recvQueue_.IsBufFull();
  recvQueue_.UnLock();
  return full;
}

int TCPClientBase::IsConnecting() {
  return connected_.load(std::memory_order_relaxed);
}

void TCPClientBase::OnPeerClosed() {}

int TCPClientBase::IsDataAvail() {
  return recvCallback_ == nullptr && !recvQueue_.IsBufEmpty() ? 1 : 0;
}

int TCPClientBase::SetRecvThrdPriority(int) {
  return recvThread_.joinable() ? 1 : 0;
}

int TCPClientBase::SetSendThrdPriority(int) {
  return sendThread_.joinable() ? 1 : 0;
}

int TCPClientBase::TCPClientRecv() {
  ReceiveStep step(*this);
  int total = 0;
  for (int reads = 0; reads < kReadsPerStep; ++reads) {
    const int descriptor = Socket();
    if (descriptor < 0) {
      return reads == 0 ? -1 : total;  // a callback may have closed it
    }
    if (recvCallback_ == nullptr && PauseWhenFull()) {
      return total;
    }
    const auto got = static_cast<int>(recv(descriptor, recvScratch_.get(),
                                           static_cast<std::size_t>(recvChunkSize_), MSG_DONTWAIT));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0 && (cms::IsWouldBlock(errno) || errno == 0)) {
      return total;
    }
    if (got <= 0) {
      SetLastError(got < 0 ? errno : 0);
      ReportClosed();  // this client may be gone afterwards
      return got < 0 ? -1 : total;
    }
    total += got;
    if (recvCallback_ != nullptr) {
      recvCallback_(recvScratch_.get(), got, recvContext_);
      if (step.IsCancelled()) {
        return total;
      }
    } else {
      recvQueue_.Write(recvScratch_.get(), got, 1);
    }
    if (total >= kBurstBytes) {
      step.NoteBurst();
    }
    if (got < recvChunkSize_) {
      return total;  // a short read emptied the socket; what comes later makes it ready again
    }
  }
  step.NoteBurst();
  return total;
}

bool TCPClientBase::PauseWhenFull() {
  if (!recvQueue_.IsBufFull()) {
    return false;
  }
  // OnRecv looks at the flag after it took a frame under the same lock: either it sees the flag, or
  // the queue is seen to have room here.
  recvQueue_.Lock();
  const bool full = recvQueue_.IsBufFull();
  if (full) {
    wantsReceive_.store(false, std::memory_order_relaxed);
  }
  recvQueue_.UnLock();
  return full;
}

void TCPClientBase::ReportClosed() {
  wantsReceive_.store(false, std::memory_order_relaxed);
  if (!peerClosed_.exchange(true)) {
    OnPeerClosed();
  }
}

bool TCPClientBase::HasPendingSend() {
  ScopeLock lock(sendLock_);
  return !sendFailed_.load(std::memory_order_relaxed) &&
         (pendingSendLength_ > 0 || sendRingUsed_ > 0);
}

int TCPClientBase::TakeFromRing() {
  ScopeLock lock(sendLock_);
  if (pendingSendLength_ == 0 && sendRing_ != nullptr) {
    pendingSendLength_ = sendRing_->Read(sendScratch_.get(), sendChunkSize_);
    sendRingUsed_ -= pendingSendLength_;
  }
  return pendingSendLength_;
}

int TCPClientBase::TCPClientSend() {
  const int descriptor = Socket();
  if (descriptor < 0) {
    return -1;
  }
  const int pending = TakeFromRing();
  if (pending == 0) {
    return 0;
  }
  const int sent = NBLSend(descriptor, sendScratch_.get(), pending);
  if (sent < 0) {
    sendFailed_.store(true, std::memory_order_relaxed);  // nothing more will go out; stay silent
  }
  sendWouldBlock_ = sent < pending;
  if (sent > 0) {
    ScopeLock lock(sendLock_);
    pendingSendLength_ = pending - sent;
    std::memmove(sendScratch_.get(), sendScratch_.get() + sent,
                 static_cast<std::size_t>(pendingSendLength_));
  }
  return 0;
}

int TCPClientBase::NBLSend(int descriptor, const char* data, int length) {
  for (;;) {
    const auto sent = send(descriptor, data, static_cast<std::size_t>(std::max(length, 0)),
                           MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      return static_cast<int>(sent);
    }
    if (errno != EINTR) {
      if (cms::IsWouldBlock(errno)) {
        return 0;
      }
      SetLastError(errno);
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
      SetLastError(errno);
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
        SetLastError(errno);
      }
      return -1;
    }
  }
}

int TCPClientBase::CloseSocket() {
  connected_.store(0, std::memory_order_relaxed);
  return CloseEndpoint();
}
