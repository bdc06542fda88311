#include "tests/support/network_namespace.h"

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace test {

bool InNetworkNamespace(const std::function<void()>& body, std::string& reason) {
  bool made = false;
  std::thread([&] {
    made = unshare(CLONE_NEWNET) == 0;
    if (made) {
      body();
    } else {
      reason = std::string("no network namespace: ") + std::strerror(errno);
    }
  }).join();
  return made;
}

}  // namespace test
