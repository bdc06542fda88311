// CLFX::CLFX_CRITICAL_ZONE, the plain recursive lock of the recording and playback classes.
#pragma once

#include <pthread.h>

#include "cms/runtime/api.h"
#include "cms/runtime/thread_annotations.h"

namespace CLFX {

// A recursive lock; any thread may call any member. Copies share nothing: a copy is a fresh lock.
class CMS_API CMS_CAPABILITY("mutex") CLFX_CRITICAL_ZONE {
 public:
  CLFX_CRITICAL_ZONE();
  CLFX_CRITICAL_ZONE(const CLFX_CRITICAL_ZONE& other);
  CLFX_CRITICAL_ZONE& operator=(const CLFX_CRITICAL_ZONE& other);
  virtual ~CLFX_CRITICAL_ZONE();

  void LOCK() CMS_ACQUIRE();
  void UNLOCK() CMS_RELEASE();

  // Acquires without blocking; true when it did.
  bool LOCK_TEST() CMS_TRY_ACQUIRE(true);

 private:
  pthread_mutex_t mutex_;
};

}  // namespace CLFX
