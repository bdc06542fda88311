// CHECK ends a fuzz target when a property does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The entry that libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#define CHECK(condition) \
  do {                   \
    if (!(condition)) {  \
      std::abort();      \
    }                    \
  } while (false)
