// ThreadTeam, the threads of a server, which come and go with its connections.
#pragma once

#include <cstddef>
#include <functional>
#include <list>

#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {

// Each thread ends by itself, and nobody waits for one alone: a thread that ends joins the one that
// ended before it, so that at most one is left to be joined however many there were, and whoever
// joins the last one has joined them all.
//
// Any thread may start others, those of the team included; one waits for all.
class ThreadTeam {
 public:
  ThreadTeam() { none_.Set(); }
  ~ThreadTeam() { WaitAll(); }
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  // As NamedThread::Start.
  bool Start(ThreadName name, NamedThread::Body body, std::size_t stackBytes = 0);
  // Returns when every thread has ended and is joined. None is started by others meanwhile.
  void WaitAll();

 private:
  using Threads = std::list<NamedThread>;
  void Leave(Threads::iterator thread);

  CMSCritical lock_;
  Threads running_ CMS_GUARDED_BY(lock_);
  Threads ended_ CMS_GUARDED_BY(lock_);  // the last that left, to be joined
  Event none_;                           // set under the lock while none runs
};

}  // namespace cms
