// Waiting in tests: for a condition, never for a time.
#pragma once

#include <chrono>
#include <functional>

namespace test {

// Polls until the condition holds; false when it still does not after the (generous) limit.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(30));

}  // namespace test
