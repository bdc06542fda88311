// CMSCritical, the recursive lock that guards every shared structure of the library, and its guard.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "cms/runtime/api.h"
#include "cms/runtime/thread_annotations.h"

// A recursive lock that remembers its holder for diagnostics. Any thread may call any member; a
// thread that locked it n times unlocks it n times. Copies share nothing: a copy is a fresh lock.
class CMS_API CMS_CAPABILITY("mutex") CMSCritical {
 public:
  CMSCritical();
  CMSCritical(const CMSCritical& other);
  CMSCritical& operator=(const CMSCritical& other);
  ~CMSCritical();

  void Lock() CMS_ACQUIRE();
  void lock() CMS_ACQUIRE() { Lock(); }
  void UnLock() CMS_RELEASE();
  void unlock() CMS_RELEASE() { UnLock(); }

  // Acquires without blocking; non-zero on success. Unlike Lock it leaves the holder alone.
  int LockTest() CMS_TRY_ACQUIRE(1);

  // The kernel's id of the thread that last locked through Lock, 0 after UnLock. An inner UnLock of
  // a recursive hold clears it too. For diagnostics only.
  std::uint32_t Holder() const { return holder_.load(std::memory_order_relaxed); }

 private:
  friend class ScopeLock;
  friend class CMSCondition;
  void AssignHolder();
  void UnassignHolder();

  pthread_mutex_t mutex_;
  std::atomic<std::uint32_t> holder_{0};
};

// Holds a CMSCritical for a scope; may be released and taken again inside it.
class CMS_API CMS_SCOPED_CAPABILITY ScopeLock {
 public:
  // The guard's own state decides whether it locks; the analysis takes it for locked throughout.
  explicit ScopeLock(CMSCritical& lock, bool lockNow = true)
      CMS_ACQUIRE(lock) CMS_NO_THREAD_SAFETY_ANALYSIS;
  ~ScopeLock() CMS_RELEASE() CMS_NO_THREAD_SAFETY_ANALYSIS;
  ScopeLock(const ScopeLock&) = delete;
  ScopeLock& operator=(const ScopeLock&) = delete;

  // Do nothing while the guard already holds, or does not hold, the lock.
  void Lock() CMS_ACQUIRE() CMS_NO_THREAD_SAFETY_ANALYSIS;
  void UnLock() CMS_RELEASE() CMS_NO_THREAD_SAFETY_ANALYSIS;

 private:
  bool locked_ = false;
  CMSCritical& lock_;
};
