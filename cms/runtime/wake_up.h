// WakeUp ends another thread's wait on descriptors.
#pragma once

#include "cms/runtime/api.h"

namespace cms {

// An eventfd that a polling thread adds to its set: Signal makes Descriptor() readable until Clear.
// Any thread may call any member. Signals add up to one.
class CMS_API WakeUp {
 public:
  WakeUp();
  ~WakeUp();
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  void Signal();
  void Clear();
  int Descriptor() const { return descriptor_; }  // -1 when the process is out of descriptors

 private:
  int descriptor_;
};

}  // namespace cms
