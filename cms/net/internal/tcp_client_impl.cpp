#include "cms/net/internal/tcp_client_impl.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "cms/net/internal/socket_io.h"

namespace {

constexpr int kReadsPerStep = 200;
// A step that took this much in one go has the receive thread look again at once: more is coming.
constexpr int kBurstBytes = 64 * 1024;
// Calls into the system, before the others have their turn.
constexpr int kSendsPerStep = 64;

}  // namespace

char* TCPClientBase::Impl::RecvScratch() const {
  static thread_local std::vector<char> scratch;
  if (scratch.size() < static_cast<std::size_t>(param.recvChunkSize)) {
    scratch.resize(static_cast<std::size_t>(param.recvChunkSize));
  }
  return scratch.data();
}

// Also while another thread releases the queue, which then counts as full.
bool TCPClientBase::Impl::QueueIsFull() {
  recvQueue.Lock();
  const bool full = recvQueue.IsBufFull();
  recvQueue.UnLock();
  return full;
}

cms::SocketEndpoint::Received TCPClientBase::Impl::ReceiveStep() {
  const unsigned begun = Unregistrations();
  Received taken;
  // What TLS holds has left the socket, and the system does not tell of it again: at the limit that
  // is given as well.
  for (int reads = 0; reads < kReadsPerStep || tls != nullptr; ++reads) {
    const int descriptor = Socket();
    if (descriptor < 0) {
      taken.bytes = reads == 0 ? -1 : taken.bytes;  // a callback may have closed it
      return taken;
    }
    if (param.recvCallback == nullptr && PauseWhenFull()) {
      return taken;
    }
    const bool mayRead = reads < kReadsPerStep;
    const int got = ReceiveBytes(descriptor, mayRead);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0 && (cms::IsWouldBlock(errno) || errno == 0)) {
      taken.burst = taken.burst || !mayRead;
      return taken;
    }
    if (got <= 0) {
      SetLastError(got < 0 ? errno : 0);
      ReportClosed();  // this client may be gone afterwards
      return got < 0 ? Received{-1} : taken;
    }
    taken.bytes += got;
    if (param.recvCallback != nullptr) {
      param.recvCallback(RecvScratch(), got, param.recvContext);
      if (Unregistrations() != begun) {
        return taken;
      }
    } else {
      recvQueue.Write(RecvScratch(), got, 1);
    }
    if (taken.bytes >= kBurstBytes) {
      taken.burst = true;
    }
    if (got < param.recvChunkSize && tls == nullptr) {
      return taken;  // a short read emptied the socket; what comes later makes it ready again
    }
  }
  taken.burst = true;
  return taken;
}

int TCPClientBase::Impl::ReceiveBytes(int descriptor, bool fromSocket) {
  return tls != nullptr
             ? tls->Receive(RecvScratch(), param.recvChunkSize, fromSocket)
             : static_cast<int>(recv(descriptor, RecvScratch(),
                                     static_cast<std::size_t>(param.recvChunkSize), MSG_DONTWAIT));
}

bool TCPClientBase::Impl::PauseWhenFull() {
  if (!recvQueue.IsBufFull()) {
    return false;
  }
  // OnRecv looks at the flag after it took a frame under the same lock: either it sees the flag, or
  // the queue is seen to have room here.
  recvQueue.Lock();
  const bool full = recvQueue.IsBufFull();
  if (full) {
    PauseReceiver();
  }
  recvQueue.UnLock();
  return full;
}

void TCPClientBase::Impl::ReportClosed() {
  PauseReceiver();
  if (!peerClosed.exchange(true)) {
    owner_.OnPeerClosed();
  }
}

bool TCPClientBase::Impl::HasPending() {
  ScopeLock lock(sendLock);
  return !sendFailed.load(std::memory_order_relaxed) && (pendingSendLength > 0 || sendRingUsed > 0);
}

int TCPClientBase::Impl::TakeFromRing() {
  ScopeLock lock(sendLock);
  if (pendingSendLength == 0 && sendRing != nullptr) {
    pendingSendLength = sendRing->Read(sendScratch.get(), param.sendChunkSize);
    sendRingUsed -= pendingSendLength;
  }
  return pendingSendLength;
}

cms::SocketEndpoint::Sent TCPClientBase::Impl::SendStep() {
  sendWouldBlock_ = false;
  for (int call = 0; call < kSendsPerStep && HasPending() && !sendWouldBlock_; ++call) {
    if (SendOnce() < 0) {
      return Sent::kFailed;
    }
  }
  return Left(sendWouldBlock_);
}

int TCPClientBase::Impl::SendOnce() {
  const int descriptor = Socket();
  if (descriptor < 0) {
    return -1;
  }
  const int pending = TakeFromRing();
  if (pending == 0) {
    return 0;
  }
  const int sent = owner_.NBLSend(descriptor, sendScratch.get(), pending);
  if (sent < 0) {
    sendFailed.store(true, std::memory_order_relaxed);  // nothing more will go out; stay silent
  }
  sendWouldBlock_ = sent < pending;
  if (sent > 0) {
    ScopeLock lock(sendLock);
    pendingSendLength = pending - sent;
    std::memmove(sendScratch.get(), sendScratch.get() + sent,
                 static_cast<std::size_t>(pendingSendLength));
  }
  return 0;
}
