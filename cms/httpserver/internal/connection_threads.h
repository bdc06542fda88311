// ConnectionThreads, the threads that accept the connections of a listening socket and serve them.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <functional>

#include "cms/net/internal/thread_team.h"
#include "cms/runtime/critical.h"

namespace cms {

// The thread that accepts a connection serves it to its end and accepts the next one: while
// connections are short none is handed over, and no thread is made. Who was the last to wait for a
// connection starts another thread before it serves its own, so that one always waits unless as
// many are served as may be. Then, and while the process is out of descriptors, connections wait in
// the system's backlog; one for which the system refuses the thread is closed.
//
// One thread starts and closes.
class ConnectionThreads {
 public:
  // Serves the connection, whose descriptor is its own from there on. False: the thread is not fit
  // for others any more. Lets no exception out.
  using Serve = std::function<bool(int descriptor, const sockaddr_in& client)>;

  // So many wait for connections at most; more of them end.
  static constexpr int kMostWaiting = 4;

  ConnectionThreads() = default;
  ~ConnectionThreads() { Close(); }
  ConnectionThreads(const ConnectionThreads&) = delete;
  ConnectionThreads& operator=(const ConnectionThreads&) = delete;

  // Takes the listening socket, which is in blocking mode. `stop` is readable once Close is to
  // come; `most` connections are served at once. False when the system refuses the first thread;
  // then the socket is left to the caller.
  bool Start(int listening, int stop, std::size_t most, Serve serve);
  // Accepts no more connections; those there are go on. 0, or -1 when nothing is accepted.
  int StopAccepting();
  // Returns when all connections have ended and all threads are joined.
  void Close();

  // Whether more than half of what may be is being served.
  bool IsCrowded() const { return 2 * serving_.load(std::memory_order_relaxed) > most_; }

 private:
  enum class Added { kYes, kEnough, kRefused };
  void Work();
  bool SomebodyElseWaits();
  bool WaitForMore(bool fit);
  Added AddThread(std::size_t most);

  int listening_ = -1;  // these four do not change while there are threads
  int stop_ = -1;
  std::size_t most_ = 0;
  Serve serve_;
  std::atomic<int> waiting_{0};  // threads that accept, and those about to
  std::atomic<std::size_t> serving_{0};

  CMSCritical lock_;
  std::size_t threads_ CMS_GUARDED_BY(lock_) = 0;
  ThreadTeam team_;
};

}  // namespace cms
