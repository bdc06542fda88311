// OwnSendThread, what a client's own send thread waits on.
#pragma once

#include <memory>

#include "cms/net/internal/io_signal.h"
#include "cms/net/socket_endpoint.h"

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

}  // namespace cms
