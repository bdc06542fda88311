#include "cms/runtime/critical.h"

#include <unistd.h>

#include "cms/runtime/internal/recursive_mutex.h"

namespace {

std::uint32_t CallingThreadId() {
  static thread_local const auto id = static_cast<std::uint32_t>(gettid());
  return id;
}

}  // namespace

CMSCritical::CMSCritical() {
  cms::InitRecursive(&mutex_);
}

CMSCritical::CMSCritical(const CMSCritical&) {
  cms::InitRecursive(&mutex_);
}

CMSCritical& CMSCritical::operator=(const CMSCritical&) {
  return *this;
}

CMSCritical::~CMSCritical() {
  pthread_mutex_destroy(&mutex_);
}

void CMSCritical::Lock() {
  pthread_mutex_lock(&mutex_);
  AssignHolder();
}

void CMSCritical::UnLock() {
  UnassignHolder();
  pthread_mutex_unlock(&mutex_);
}

int CMSCritical::LockTest() {
  return pthread_mutex_trylock(&mutex_) == 0 ? 1 : 0;
}

void CMSCritical::AssignHolder() {
  holder_.store(CallingThreadId(), std::memory_order_relaxed);
}

void CMSCritical::UnassignHolder() {
  holder_.store(0, std::memory_order_relaxed);
}

ScopeLock::ScopeLock(CMSCritical& lock, bool lockNow) : lock_(lock) {
  if (lockNow) {
    Lock();
  }
}

ScopeLock::~ScopeLock() {
  UnLock();
}

void ScopeLock::Lock() {
  if (!locked_) {
    lock_.Lock();
    locked_ = true;
  }
}

void ScopeLock::UnLock() {
  if (locked_) {
    locked_ = false;
    lock_.UnLock();
  }
}
