// Storage of the media buffers.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace cms {

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};
using ZeroedBlock = std::unique_ptr<unsigned char[], FreeDeleter>;

// Zeroed by the system's own pages where it can be, so that bytes never used cost nothing. nullptr
// when there is no memory or the size is negative.
inline ZeroedBlock AllocateZeroed(long size) {
  if (size < 0) {
    return nullptr;
  }
  const std::size_t bytes = size > 0 ? static_cast<std::size_t>(size) : 1;
  return ZeroedBlock(static_cast<unsigned char*>(std::calloc(bytes, 1)));
}

}  // namespace cms
