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
  recv_queue_depth_ = size(param.recvQueueDepth, standard.recvQueueDepth);
  recv_chunk_size_ = size(param.recvChunkSize, standard.recvChunkSize);
  send_queue_depth_ = size(param.sendQueueDepth, standard.sendQueueDepth);
  send_chunk_size_ = size(param.sendChunkSize, standard.sendChunkSize);
  recv_callback_ = param.recvCallback;
  recv_context_ = param.recvContext;
  running_.store(1, std::memory_order_relaxed);
  connected_.store(0, std::memory_order_relaxed);
  remote_address_ = 0;
  remote_port_ = 0;
  remote_ = {};
  recv_scratch_.reset();
  send_scratch_.reset();
  CloseSocket();
  return OnAllocateMemory();
}

int TCPClientBase::OnAllocateMemory() {
  const auto ring = static_cast<std::int64_t>(send_queue_depth_) * send_chunk_size_;
  if (ring > std::numeric_limits<int>::max()) {
    return 0;
  }
  // Nothing is queued for OnRecv while a callback takes the bytes, so that mode has no queue.
  if (recv_callback_ == nullptr &&
      recv_queue_.AllocateBuffer(recv_queue_depth_, recv_chunk_size_) == 0) {
    return 0;
  }
  recv_scratch_.reset(new (std::nothrow) char[static_cast<std::size_t>(recv_chunk_size_)]());
  send_scratch_.reset(new (std::nothrow) char[static_cast<std::size_t>(send_chunk_size_)]());
  ScopeLock lock(send_lock_);
  send_ring_.reset(new (std::nothrow) CSimpleBuffer);
  send_ring_used_ = 0;
  pending_send_length_ = 0;
  send_ring_size_ = static_cast<int>(ring);
  if (recv_scratch_ == nullptr || send_scratch_ == nullptr || send_ring_ == nullptr ||
      send_ring_->AllocateBuffer(send_queue_depth_, send_chunk_size_) == 0) {
    send_ring_.reset();
    return 0;
  }
  return 1;
}

int TCPClientBase::OnReleaseMemory() {
  recv_queue_.StopBuffer();
  recv_queue_.ReleaseBuffer();
  recv_scratch_.reset();
  send_scratch_.reset();
  ScopeLock lock(send_lock_);
  send_ring_.reset();
  send_ring_used_ = 0;
  pending_send_length_ = 0;
  return 1;
}

int TCPClientBase::OnConnect(unsigned long address, unsigned long port) {
  return ConnectSocket(address, port, -1, nullptr);
}

int TCPClientBase::ConnectSocket(unsigned long address, unsigned long port, int timeoutMilliseconds,
                                 cms::WakeUp* cancel) {
  CloseSocket();
  SetLastError(0);
  remote_address_ = static_cast<std::uint32_t>(address);
  remote_port_ = port;
  if (port > std::numeric_limits<std::uint16_t>::max()) {
    SetLastError(EINVAL);
    return 0;
  }
  remote_ = cms::MakeAddress(remote_address_, static_cast<std::uint16_t>(port));
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
  peer_closed_ = false;
  wants_receive_.store(true, std::memory_order_relaxed);
  send_failed_.store(false, std::memory_order_relaxed);
  connected_.store(1, std::memory_order_relaxed);
  return 1;
}

int TCPClientBase::OnStartTCPClient(unsigned long address, unsigned long port, unsigned int group) {
  if (OnConnect(address, port) == 0) {
    return 0;
  }
  {
    ScopeLock lock(send_lock_);
    pending_send_length_ = 0;
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
  if (closeSocket && !recv_thread_.joinable() && !send_thread_.joinable()) {
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
    ScopeLock lock(send_lock_);
    if (send_ring_ == nullptr) {
      return 0;
    }
    // The ring itself would take a write that fills it to its last byte for an empty ring.
    const int room = send_ring_size_ - 1 - send_ring_used_;
    if (room > 0) {
      accepted = send_ring_->Write(data, std::min(length, room));
      send_ring_used_ += accepted;
    }
  }
  if (accepted > 0) {
    WakeSender();
  }
  return accepted;
}

int TCPClientBase::OnRecv(char* buffer, int size) {
  if (buffer == nullptr || size <= 0 || recv_callback_ != nullptr) {
    return 0;
  }
  int got = 0;
  if (size >= recv_chunk_size_) {
    got = static_cast<int>(recv_queue_.Read(buffer, recv_chunk_size_));
  } else {
    const std::unique_ptr<char[]> frame(
        new (std::nothrow) char[static_cast<std::size_t>(recv_chunk_size_)]);
    if (frame == nullptr) {
      return 0;
    }
    got = static_cast<int>(recv_queue_.Read(frame.get(), recv_chunk_size_));
    got = std::clamp(got, 0, size);
    std::memcpy(buffer, frame.get(), static_cast<std::size_t>(got));
  }
  // The step set the flag with the queue's count lock held, which the read has taken since.
  if (!wants_receive_.load(std::memory_order_relaxed) && !peer_closed_.load() && !QueueIsFull() &&
      !wants_receive_.exchange(true, std::memory_order_relaxed)) {
    ResumeReceiver();
  }
  return got;
}

// Also while another thread releases the queue, which then counts as full.
bool TCPClientBase::QueueIsFull() {
  recv_queue_.Lock();
  const bool full = recv_queue_.IsBufFull();
  recv_queue_.UnLock();
  return full;
}

int TCPClientBase::IsConnecting() {
  return connected_.load(std::memory_order_relaxed);
}

void TCPClientBase::OnPeerClosed() {}

int TCPClientBase::IsDataAvail() {
  return recv_callback_ == nullptr && !recv_queue_.IsBufEmpty() ? 1 : 0;
}

int TCPClientBase::SetRecvThrdPriority(int) {
  return recv_thread_.joinable() ? 1 : 0;
}

int TCPClientBase::SetSendThrdPriority(int) {
  return send_thread_.joinable() ? 1 : 0;
}

int TCPClientBase::TCPClientRecv() {
  ReceiveStep step(*this);
  int total = 0;
  for (int reads = 0; reads < kReadsPerStep; ++reads) {
    const int descriptor = Socket();
    if (descriptor < 0) {
      return reads == 0 ? -1 : total;  // a callback may have closed it
    }
    if (recv_callback_ == nullptr && PauseWhenFull()) {
      return total;
    }
    const auto got = static_cast<int>(recv(
        descriptor, recv_scratch_.get(), static_cast<std::size_t>(recv_chunk_size_), MSG_DONTWAIT));
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
    if (recv_callback_ != nullptr) {
      recv_callback_(recv_scratch_.get(), got, recv_context_);
      if (step.IsCancelled()) {
        return total;
      }
    } else {
      recv_queue_.Write(recv_scratch_.get(), got, 1);
    }
    if (total >= kBurstBytes) {
      step.NoteBurst();
    }
    if (got < recv_chunk_size_) {
      return total;  // a short read emptied the socket; what comes later makes it ready again
    }
  }
  step.NoteBurst();
  return total;
}

bool TCPClientBase::PauseWhenFull() {
  if (!recv_queue_.IsBufFull()) {
    return false;
  }
  // OnRecv looks at the flag after it took a frame under the same lock: either it sees the flag, or
  // the queue is seen to have room here.
  recv_queue_.Lock();
  const bool full = recv_queue_.IsBufFull();
  if (full) {
    wants_receive_.store(false, std::memory_order_relaxed);
  }
  recv_queue_.UnLock();
  return full;
}

void TCPClientBase::ReportClosed() {
  wants_receive_.store(false, std::memory_order_relaxed);
  if (!peer_closed_.exchange(true)) {
    OnPeerClosed();
  }
}

bool TCPClientBase::HasPendingSend() {
  ScopeLock lock(send_lock_);
  return !send_failed_.load(std::memory_order_relaxed) &&
         (pending_send_length_ > 0 || send_ring_used_ > 0);
}

int TCPClientBase::TakeFromRing() {
  ScopeLock lock(send_lock_);
  if (pending_send_length_ == 0 && send_ring_ != nullptr) {
    pending_send_length_ = send_ring_->Read(send_scratch_.get(), send_chunk_size_);
    send_ring_used_ -= pending_send_length_;
  }
  return pending_send_length_;
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
  const int sent = NBLSend(descriptor, send_scratch_.get(), pending);
  if (sent < 0) {
    send_failed_.store(true, std::memory_order_relaxed);  // nothing more will go out; stay silent
  }
  send_would_block_ = sent < pending;
  if (sent > 0) {
    ScopeLock lock(send_lock_);
    pending_send_length_ = pending - sent;
    std::memmove(send_scratch_.get(), send_scratch_.get() + sent,
                 static_cast<std::size_t>(pending_send_length_));
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
