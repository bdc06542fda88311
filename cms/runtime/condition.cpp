#include "cms/runtime/condition.h"

#include <thread>

CMSCondition::CMSCondition(CMSCritical& external) : external_(external) {}

void CMSCondition::Wait() {
  external_.UnassignHolder();
  std::uint32_t generation = 0;
  {
    ScopeLock lock(internal_);
    generation = generation_;
    ++waiters_;
  }
  external_.UnLock();
  for (event_.Wait(); !Claim(generation); event_.Wait()) {
    // The event stands for threads that began to wait earlier; let them run.
    std::this_thread::yield();
  }
  external_.Lock();
}

// Looking whether a release is due and taking it are one step, so that one Notify never lets two
// waiters go. Both counts move together, which Notify's comparison of them cannot tell from doing
// it later under the external lock, and the event falls before the latecomers can spin on it for
// long.
bool CMSCondition::Claim(std::uint32_t generation) {
  ScopeLock lock(internal_);
  if (releaseCount_ <= 0 || generation_ == generation) {
    return false;
  }
  --waiters_;
  if (--releaseCount_ == 0) {
    event_.Reset();
  }
  return true;
}

int CMSCondition::WaitForMilliseconds(unsigned int) {
  return 0;
}

void CMSCondition::Notify() {
  ScopeLock lock(internal_);
  if (waiters_ > releaseCount_) {
    event_.Set();
    ++releaseCount_;
    ++generation_;
  }
}

void CMSCondition::NotifyAll() {
  ScopeLock lock(internal_);
  if (waiters_ > 0) {
    event_.Set();
    ++generation_;
    releaseCount_ = waiters_;
  }
}
