#include "cms/runtime/critical_zone.h"

#include "cms/runtime/internal/recursive_mutex.h"

namespace CLFX {

CLFX_CRITICAL_ZONE::CLFX_CRITICAL_ZONE() {
  cms::InitRecursive(&mutex_);
}

CLFX_CRITICAL_ZONE::CLFX_CRITICAL_ZONE(const CLFX_CRITICAL_ZONE&) : CLFX_CRITICAL_ZONE() {}

CLFX_CRITICAL_ZONE& CLFX_CRITICAL_ZONE::operator=(const CLFX_CRITICAL_ZONE&) {
  return *this;
}

CLFX_CRITICAL_ZONE::~CLFX_CRITICAL_ZONE() {
  pthread_mutex_destroy(&mutex_);
}

void CLFX_CRITICAL_ZONE::LOCK() {
  pthread_mutex_lock(&mutex_);
}

void CLFX_CRITICAL_ZONE::UNLOCK() {
  pthread_mutex_unlock(&mutex_);
}

bool CLFX_CRITICAL_ZONE::LOCK_TEST() {
  return pthread_mutex_trylock(&mutex_) == 0;
}

}  // namespace CLFX
