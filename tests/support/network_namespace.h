// A network of a test's own.
#pragma once

#include <functional>
#include <string>

namespace test {

// Runs `body` on a thread in a new network namespace; what it starts (threads, RunShell) is in it
// as well. False, with the reason, where the system does not permit that: skip the test then.
bool InNetworkNamespace(const std::function<void()>& body, std::string& reason);

}  // namespace test
