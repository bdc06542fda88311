// The threads of its own that a TCP client may run in place of a group's.
#include <poll.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/internal/tcp_client_impl.h"

namespace {

constexpr int kWaitMilliseconds = 100;  // how late a stop may be noticed
constexpr std::chrono::milliseconds kPauseAfterEnd{20};

}  // namespace

void TCPClientBase::TCPClientRecvThrd(TCPClientBase* client) {
  Impl& impl = *client->impl_;
  const int chunk = impl.param.recvChunkSize;
  char* const scratch = impl.RecvScratch();
  while (impl.running.load(std::memory_order_relaxed) != 0) {
    if (!cms::WaitSocket(impl.Socket(), POLLIN, kWaitMilliseconds)) {
      continue;
    }
    const int got = client->Recv(impl.Socket(), scratch, chunk);
    if (got < 1) {
      std::this_thread::sleep_for(kPauseAfterEnd);
      impl.connected.store(0, std::memory_order_relaxed);
      impl.WakeSender();
      return;
    }
    if (impl.param.recvCallback != nullptr) {
      impl.param.recvCallback(scratch, got, impl.param.recvContext);
    } else {
      impl.recvQueue.Write(scratch, got, 1);
    }
    std::memset(scratch, 0, static_cast<std::size_t>(chunk));
  }
}

void TCPClientBase::TCPClientSendThrd(TCPClientBase* client) {
  Impl& impl = *client->impl_;
  cms::OwnSendThread own(impl);
  while (impl.running.load(std::memory_order_relaxed) != 0 && client->IsConnecting() != 0) {
    if (own.WaitWritable(impl.HasPending())) {
      impl.SendOnce();
    }
  }
}
