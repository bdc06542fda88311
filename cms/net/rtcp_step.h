// RTCPStep, what the send thread of a group calls for each control-protocol instance.
#pragma once

#include "cms/runtime/api.h"

namespace cms {

// Work that is repeated on a group's send thread, about every 50 ms, from its registration with
// EachClientGroupTable until it is unregistered. Not owned by the table.
class CMS_API RTCPStep {
 public:
  // A negative result has the instance dropped. Runs with the group's locks held, so never at the
  // same time as a receive step of the same group; it may unregister any client of its group,
  // itself included.
  virtual int RTCPProcessNB() = 0;

 protected:
  ~RTCPStep() = default;
};

}  // namespace cms
