// The process's locks over its databases: one each, and no thread holds two of them.
#pragma once

#include "cms/runtime/critical.h"

namespace cms {

CMSCritical& RecordDatabaseLock();  // every record list and every folder span
CMSCritical& EventDatabaseLock();   // every event list
CMSCritical& FolderDatabaseLock();  // every folder list
CMSCritical& GapLogLock();          // every gap log
CMSCritical& ProtectionLock();      // every list of protected spans

// Takes one of them only if it is free: for threads that another site's disk must not hold up.
class TryDatabaseLock {
 public:
  // Whether it locks is known at run time alone.
  explicit TryDatabaseLock(CMSCritical& lock) CMS_NO_THREAD_SAFETY_ANALYSIS
      : lock_(lock),
        taken_(lock.LockTest() != 0) {}
  ~TryDatabaseLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
    if (taken_) {
      lock_.UnLock();
    }
  }
  TryDatabaseLock(const TryDatabaseLock&) = delete;
  TryDatabaseLock& operator=(const TryDatabaseLock&) = delete;
  explicit operator bool() const { return taken_; }

 private:
  CMSCritical& lock_;
  const bool taken_;
};

}  // namespace cms
