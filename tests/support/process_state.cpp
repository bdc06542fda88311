#include "tests/support/process_state.h"

#include <malloc.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#ifdef __SANITIZE_ADDRESS__
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();  // its header is clang's
#endif

namespace test {
namespace {

std::size_t Entries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

}  // namespace

// The listing itself opens one.
std::size_t OpenDescriptors() {
  return Entries("/proc/self/fd") - 1;
}
std::size_t RunningThreads() {
  return Entries("/proc/self/task");
}

std::size_t HeapBytes() {
#ifdef __SANITIZE_ADDRESS__
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

// Waiting time and again: a lock that is taken for a moment is no wait.
void WaitUntilItWaits(int thread) {
  for (int waiting = 0; waiting < 5;) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t state = text.rfind(") ");
    waiting = state != std::string::npos && text[state + 2] == 'S' ? waiting + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace test
