#include "cms/net/internal/own_send_thread.h"

#include <poll.h>

namespace cms {
namespace {

constexpr int kWithoutSignal = 10;  // milliseconds between looks when descriptors have run out

}  // namespace

OwnSendThread::OwnSendThread(SocketEndpoint& client) : client_(client) {
  client_.SetSendSignal(signal_);
}

OwnSendThread::~OwnSendThread() {
  client_.SetSendSignal(nullptr);
}

bool OwnSendThread::WaitWritable(bool toSend) {
  // Poll passes over descriptor -1.
  pollfd items[] = {{signal_->Descriptor(), POLLIN, 0},
                    {toSend ? client_.Socket() : -1, POLLOUT, 0}};
  poll(items, 2, signal_->Descriptor() >= 0 ? -1 : kWithoutSignal);
  signal_->Clear();
  return items[1].revents != 0;
}

void JoinOwnThreads(SocketEndpoint& client, std::initializer_list<std::thread*> threads) {
  client.WakeSender();
  for (std::thread* thread : threads) {
    if (thread->joinable()) {
      thread->join();
    }
  }
}

}  // namespace cms
