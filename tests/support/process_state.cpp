#include "tests/support/process_state.h"

#include <filesystem>
#include <iterator>

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

}  // namespace test
