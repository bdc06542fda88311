// CMSCondition, a condition variable bound to one CMSCritical.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"

// A condition variable with generations: a thread that begins to wait after a signal cannot consume
// that signal. Any thread may call any member; the external lock must outlive the condition, and no
// thread may wait any more when it is destroyed.
class CMS_API CMSCondition {
 public:
  explicit CMSCondition(CMSCritical& external);
  CMSCondition(const CMSCondition&) = delete;
  CMSCondition& operator=(const CMSCondition&) = delete;

  // Called with the external lock held exactly once: releases it, waits without limit for a
  // Notify or NotifyAll that comes later, and takes the lock again before it returns.
  void Wait() CMS_NO_THREAD_SAFETY_ANALYSIS;

  // Returns 0 at once, without waiting and without touching the lock. Nobody may rely on it to
  // block.
  int WaitForMilliseconds(unsigned int milliseconds);

  // Release one waiting thread, or all of them; callers normally hold the external lock. With
  // nobody waiting the call is lost.
  void Notify();
  void NotifyAll();

 private:
  bool Claim(std::uint32_t generation);

  CMSCritical& external_;
  std::int32_t waiters_ CMS_GUARDED_BY(internal_) = 0;
  CMSCritical internal_;
  std::int32_t releaseCount_ CMS_GUARDED_BY(internal_) = 0;
  std::uint32_t generation_ CMS_GUARDED_BY(internal_) = 0;
  cms::Event event_;
};
