// A client application that knows the library only as it is installed.
#include <cstdio>

#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"

int main() {
  CMSCritical lock;
  const ScopeLock guard(lock);
  if (lock.Holder() == 0 || cms::TickMilliseconds() == 0) {
    return 1;
  }
  std::puts("the installed library works");
  return 0;
}
