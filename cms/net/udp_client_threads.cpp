// The threads of its own that a UDP client may run in place of a group's.
#include <poll.h>
#include <sys/socket.h>

#include "cms/net/internal/datagram_batch.h"
#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/udp_client_impl.h"

namespace {

constexpr int kDatagramWaitMs = 100;  // how late a stop may be noticed

}  // namespace

void UDPClientBase::UDPClientRecvThrd(UDPClientBase* client) {
  client->UDPClientRecvFn();
}

void UDPClientBase::UDPClientSendThrd(UDPClientBase* client) {
  client->UDPClientSendFn();
}

void UDPClientBase::UDPClientRecvFn() {
  Impl& impl = *impl_;
  char* data = cms::DatagramBatch::OfThisThread().Data(0);
  while (impl.running.load(std::memory_order_relaxed) != 0) {
    if (!cms::WaitSocket(impl.Socket(), POLLIN, kDatagramWaitMs)) {
      continue;
    }
    cms::SocketAddress source;
    const auto got = recvfrom(impl.Socket(), data, cms::DatagramBatch::kBytes, MSG_DONTWAIT,
                              source.Pointer(), &source.size);
    if (got >= 0 && source.Port() == impl.remote.Port() &&
        source.Address() == impl.remote.Address()) {
      if (impl.HasCallback()) {
        impl.config.recvCallback(impl.config.recvContext, data, static_cast<int>(got));
      } else {
        impl.Queue(data, static_cast<int>(got));
      }
    }
  }
}

void UDPClientBase::UDPClientSendFn() {
  Impl& impl = *impl_;
  cms::OwnSendThread own(impl);
  while (impl.running.load(std::memory_order_relaxed) != 0) {
    if (own.WaitWritable(impl.HasPending())) {
      impl.SendOne(impl.Socket());
    }
  }
}
