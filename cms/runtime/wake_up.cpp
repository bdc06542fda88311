#include "cms/runtime/wake_up.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace cms {

WakeUp::WakeUp() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

WakeUp::~WakeUp() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

void WakeUp::Signal() {
  // A full counter is signalled already, so a failed write loses nothing.
  [[maybe_unused]] const int result = eventfd_write(descriptor_, 1);
}

void WakeUp::Clear() {
  eventfd_t count = 0;
  [[maybe_unused]] const int result = eventfd_read(descriptor_, &count);
}

}  // namespace cms
