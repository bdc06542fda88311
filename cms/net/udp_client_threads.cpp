// The threads of its own that a UDP client may run in place of a group's.
#include <poll.h>
#include <sys/socket.h>

#include <thread>

#include "cms/net/internal/datagram_batch.h"
#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/udp_client.h"

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
  char* data = cms::DatagramBatch::OfThisThread().Data(0);
  while (running_.load(std::memory_order_relaxed) != 0) {
    if (!cms::WaitSocket(Socket(), POLLIN, kDatagramWaitMs)) {
      continue;
    }
    sockaddr_in source{};
    socklen_t size = sizeof source;
    const auto got = recvfrom(Socket(), data, cms::DatagramBatch::kBytes, MSG_DONTWAIT,
                              reinterpret_cast<sockaddr*>(&source), &size);
    if (got >= 0 && source.sin_port == remote_.sin_port &&
        source.sin_addr.s_addr == remote_.sin_addr.s_addr) {
      Deliver(data, static_cast<int>(got));
    }
  }
}

void UDPClientBase::UDPClientSendFn() {
  cms::OwnSendThread own(*this);
  while (running_.load(std::memory_order_relaxed) != 0) {
    if (own.WaitWritable(HasPendingSend())) {
      SendOne(Socket());
    }
  }
}

void UDPClientBase::JoinThreads() {
  WakeSender();
  for (std::thread* thread : {&recvThread_, &sendThread_}) {
    if (thread->joinable()) {
      thread->join();
    }
  }
}
