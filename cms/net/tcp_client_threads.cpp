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
  const auto chunk = static_cast<std::size_t>(client->recv_chunk_size_);
  while (client->running_.load(std::memory_order_relaxed) != 0) {
    if (!cms::WaitSocket(client->Socket(), POLLIN, kWaitMilliseconds)) {
      continue;
    }
    const int got =
        client->Recv(client->Socket(), client->recv_scratch_.get(), client->recv_chunk_size_);
    if (got < 1) {
      std::this_thread::sleep_for(kPauseAfterEnd);
      client->connected_.store(0, std::memory_order_relaxed);
      client->WakeSender();
      return;
    }
    if (client->recv_callback_ != nullptr) {
      client->recv_callback_(client->recv_scratch_.get(), got, client->recv_context_);
    } else {
      client->recv_queue_.Write(client->recv_scratch_.get(), got, 1);
    }
    std::memset(client->recv_scratch_.get(), 0, chunk);
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
  for (std::thread* thread : {&recv_thread_, &send_thread_}) {
    if (thread->joinable()) {
      thread->join();
    }
  }
}
