// CTcpSender, the sending side of one connection of the TCP server.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include "cms/net/tcp_server.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"
#include "cms/runtime/internal/named_thread.h"

// A queue of blocks and the thread that sends them. A block that is broadcast is shared by all
// queues that it is in.
class CTcpSender {
 public:
  using Block = std::shared_ptr<const std::string>;

  // Neither descriptor is owned; `stop` becomes readable when the server stops.
  CTcpSender(int descriptor, int stop, const cms::tTcpServerConfig& config);
  ~CTcpSender() { Stop(); }
  CTcpSender(const CTcpSender&) = delete;
  CTcpSender& operator=(const CTcpSender&) = delete;

  bool Start();
  // Waits for the thread, whose socket is shut down or whose server is stopping.
  void Stop();

  // The block's length, or 0 when the queue has no room for all of it.
  int Queue(const Block& block);
  std::size_t QueuedBytes();

 private:
  void Run();
  bool SendAll(const std::string& bytes);

  const int socket_;
  const int stop_;
  const std::size_t capacity_;  // bytes
  std::atomic<bool> running_{false};
  cms::NamedThread thread_;

  CMSCritical lock_;
  std::deque<Block> queue_ CMS_GUARDED_BY(lock_);
  std::size_t queued_ CMS_GUARDED_BY(lock_) = 0;  // bytes, with the block that is being sent
  cms::Event filled_;                             // set under the lock while there is work
};
