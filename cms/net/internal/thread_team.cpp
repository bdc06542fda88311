#include "cms/net/internal/thread_team.h"

#include <cerrno>
#include <new>
#include <utility>

namespace cms {

bool ThreadTeam::Start(ThreadName name, NamedThread::Body body, std::size_t stackBytes) try {
  Threads made(1);
  const auto thread = made.begin();
  const ScopeLock lock(lock_);
  if (!thread->Start(
          name,
          [this, thread, work = std::move(body)] {
            work();
            Leave(thread);
          },
          stackBytes)) {
    return false;
  }
  running_.splice(running_.end(), made);
  none_.Reset();
  return true;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return false;
}

// The last step of a thread.
void ThreadTeam::Leave(Threads::iterator thread) {
  Threads earlier;  // joined as the list goes
  ScopeLock lock(lock_);
  earlier.swap(ended_);
  ended_.splice(ended_.begin(), running_, thread);
  if (running_.empty()) {
    none_.Set();
  }
  lock.UnLock();
}

void ThreadTeam::WaitAll() {
  none_.Wait();
  Threads last;
  ScopeLock lock(lock_);
  last.swap(ended_);
  lock.UnLock();
}

}  // namespace cms
