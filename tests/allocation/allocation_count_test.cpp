// The program replaces the global operator new, so it stands alone.
#include "tests/allocation/allocation_count.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<long> allocations{0};

// Whether the calling thread is one of the library's that receive or capture.
bool OnMediaThread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return std::strncmp(name, "cms-recv", 8) == 0 || std::strcmp(name, "cms-audio-in") == 0;
}

void Count() {
  static thread_local const bool counted = OnMediaThread();
  if (counted) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
}

void* Counted(std::size_t size) {
  Count();
  if (void* const memory = std::malloc(size != 0 ? size : 1)) {
    return memory;
  }
  throw std::bad_alloc();
}

}  // namespace

namespace test {

long Allocations() {
  return allocations;
}

}  // namespace test

// Where g++ inlines only one half of a replaced pair, it takes the pair for new and free.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
  return Counted(size);
}
void* operator new[](std::size_t size) {
  return Counted(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Counted(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Counted(size);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  Count();
  void* memory = nullptr;
  return posix_memalign(&memory, static_cast<std::size_t>(alignment), size) == 0 ? memory : nullptr;
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
