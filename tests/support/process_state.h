// What a process holds, for tests that look for leaks.
#pragma once

#include <cstddef>

namespace test {

std::size_t OpenDescriptors();
std::size_t RunningThreads();

}  // namespace test
