// What a process holds, for tests that look for leaks.
#pragma once

#include <cstddef>

namespace test {

std::size_t OpenDescriptors();
std::size_t RunningThreads();
std::size_t HeapBytes();  // that are allocated now

// Until a thread of this process (gettid) has begun to wait for something.
void WaitUntilItWaits(int thread);

}  // namespace test
