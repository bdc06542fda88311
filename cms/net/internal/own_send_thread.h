// OwnSendThread, what a client's own send thread waits on, and the end of a client's own threads.
#pragma once

#include <initializer_list>
#include <memory>
#include <thread>

#include "cms/net/internal/io_signal.h"
#include "cms/net/internal/socket_endpoint.h"

namespace cms {

// While it lives, WakeSender wakes this thread as it would a group's. One at a time for a client
// that is not registered with a group.
class OwnSendThread {
 public:
  explicit OwnSendThread(SocketEndpoint& client);
  ~OwnSendThread();
  OwnSendThread(const OwnSendThread&) = delete;
  OwnSendThread& operator=(const OwnSendThread&) = delete;

  // Waits for WakeSender, or with `toSend` until the socket takes bytes, or has an error to tell:
  // true then.
  bool WaitWritable(bool toSend);

 private:
  SocketEndpoint& client_;
  const std::shared_ptr<IoSignal> signal_ = std::make_shared<IoSignal>();
};

// Waits for those of a client's own threads that exist, which it has told to end.
void JoinOwnThreads(SocketEndpoint& client, std::initializer_list<std::thread*> threads);

}  // namespace cms
