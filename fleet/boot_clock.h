// The time since this machine was started, sleep included: what leases are measured by.
#pragma once

#include <time.h>

#include "fleet/recorder_state.h"

namespace cms::fleet {

inline Tick BootTick() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return Tick(now.tv_sec * 1'000 + now.tv_nsec / 1'000'000);
}

}  // namespace cms::fleet
