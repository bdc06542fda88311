// The threads of its own that a TCP client may run in place of a group's.
#include <poll.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "cms/net/internal/own_send_thread.h"
#include "cms/net/internal/socket_io.h"
#include "cms/net/tcp_client.h"

namespace {

constexpr int kWaitMilliseconds = 100;  // how late a stop may be noticed
constexpr std::chrono::milliseconds kPauseAfterEnd{20};

}  // namespace

void TCPClientBase::TCPClientRecvThrd(TCPClientBase* client) {
  const auto chunk = static_cast<std::size_t>(client->recvChunkSize_);
  while (client->running_.load(std::memory_order_relaxed) != 0) {
    if (!cms::WaitSocket(client->Socket(), POLLIN, kWaitMilliseconds)) {
      continue;
    }
    const int got =
        client->Recv(client->Socket(), client->recvScratch_.get(), client->recvChunkSize_);
    if (got < 1) {
      std::this_thread::sleep_for(kPauseAfterEnd);
      client->connected_.store(0, std::memory_order_relaxed);
      client->WakeSender();
      return;
    }
    if (client->recvCallback_ != nullptr) {
      client->recvCallback_(client->recvScratch_.get(), got, client->recvContext_);
    } else {
      client->recvQueue_.Write(client->recvScratch_.get(), got, 1);
    }
    std::memset(client->recvScratch_.get(), 0, chunk);
  }
}

void TCPClientBase::TCPClientSendThrd(TCPClientBase* client) {
  cms::OwnSendThread own(*client);
  while (client->running_.load(std::memory_order_relaxed) != 0 && client->IsConnecting() != 0) {
    if (own.WaitWritable(client->HasPendingSend())) {
      client->TCPClientSend();
    }
  }
}

void TCPClientBase::JoinThreads() {
  WakeSender();
  for (std::thread* thread : {&recvThread_, &sendThread_}) {
    if (thread->joinable()) {
      thread->join();
    }
  }
}
