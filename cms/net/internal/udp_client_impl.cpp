#include "cms/net/internal/udp_client_impl.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "cms/net/internal/datagram_batch.h"
#include "cms/net/internal/socket_io.h"
#include "cms/runtime/clock.h"

namespace {

constexpr int kDatagramsPerStep = 200;
// This many in one step have the receive thread look again at once, before the socket's buffer
// overflows: of one with little room, and with much.
constexpr int kBurstDatagrams = 32;
constexpr int kLargeBurstDatagrams = 128;
constexpr std::uint64_t kSendStepMilliseconds = 31;
// A long rest's worth of a gigabit, of which a packet of 1.4 KB counts as 2.3.
constexpr int kRoomyBuffer = 2 * 1024 * 1024;

}  // namespace

void UDPClientBase::Impl::Queue(char* data, int length) {
  if (length <= config.recvDatagramSize && recvQueue.Write(data, length, 1) > 0) {
    queuedReceives.fetch_add(1, std::memory_order_release);
  }
}

cms::SocketEndpoint::Received UDPClientBase::Impl::ReceiveStep() {
  const unsigned begun = Unregistrations();
  cms::DatagramBatch& batch = cms::DatagramBatch::OfThisThread();
  Received total;
  for (int taken = 0; taken < kDatagramsPerStep;) {
    const int descriptor = Socket();
    if (descriptor < 0) {
      return taken == 0 ? Received{-1} : total;  // a callback may have closed it
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
      return {-1};
    }
    for (int i = 0; i < count; ++i) {
      total.bytes += batch.Length(i);
      if (HasCallback()) {
        config.recvCallback(config.recvContext, batch.Data(i), batch.Length(i));
      } else {
        Queue(batch.Data(i), batch.Length(i));
      }
      if (Unregistrations() != begun) {
        return total;
      }
    }
    taken += count;
    if (taken >= (Rest() == kLongRest ? kLargeBurstDatagrams : kBurstDatagrams)) {
      total.burst = true;
    }
    if (count < wanted) {
      return total;  // the socket is empty
    }
  }
  return total;
}

bool UDPClientBase::Impl::SetReceiveBuffer(int bytes) {
  const bool done = SetBufferOption(SO_RCVBUFFORCE, SO_RCVBUF, bytes);
  int granted = 0;
  socklen_t size = sizeof granted;
  MayRestLong(getsockopt(Socket(), SOL_SOCKET, SO_RCVBUF, &granted, &size) == 0 &&
              granted >= kRoomyBuffer);
  return done;
}

int UDPClientBase::Impl::SendOne(int descriptor) {
  static thread_local std::vector<char> datagram;
  const int size = config.sendDatagramSize;
  if (datagram.size() < static_cast<std::size_t>(size)) {
    datagram.resize(static_cast<std::size_t>(size));
  }
  auto length = static_cast<int>(sendQueue.Read(datagram.data(), size));
  if (length <= 0) {  // the empty slot that a new queue starts with
    length = static_cast<int>(sendQueue.Read(datagram.data(), size));
  }
  queuedSends.fetch_sub(1, std::memory_order_relaxed);
  if (length <= 0) {
    return 0;
  }
  const auto sent = sendto(descriptor, datagram.data(), static_cast<std::size_t>(length),
                           MSG_DONTWAIT | MSG_NOSIGNAL, remote.Pointer(), remote.size);
  if (sent >= 0) {
    return static_cast<int>(sent);
  }
  if (cms::IsWouldBlock(errno) || errno == ENOBUFS || errno == EINTR) {
    return 0;
  }
  SetLastError(errno);
  return -1;
}

cms::SocketEndpoint::Sent UDPClientBase::Impl::SendStep() {
  if (!HasPending()) {
    return Sent::kAll;
  }
  if (SendPending() < 0) {
    return Sent::kFailed;
  }
  return Left(sendWouldBlock_);
}

int UDPClientBase::Impl::SendPending() {
  const int descriptor = Socket();
  if (descriptor < 0) {
    return -1;
  }
  const std::uint64_t start = cms::TickMilliseconds();
  sendWouldBlock_ = false;
  int total = 0;
  while (HasPending() && cms::TickMilliseconds() - start < kSendStepMilliseconds) {
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
