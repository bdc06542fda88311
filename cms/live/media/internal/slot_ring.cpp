#include "cms/live/media/internal/slot_ring.h"

#include <new>
#include <stdexcept>

namespace cms {

std::vector<CBuffer> MakeSlotRing(long count, long size) {
  std::vector<CBuffer> slots;
  if (count <= 0 || size <= 0) {
    return slots;
  }
  try {
    slots.reserve(static_cast<std::size_t>(count));
  } catch (const std::length_error&) {
    return slots;
  } catch (const std::bad_alloc&) {
    return slots;
  }
  for (long i = 0; i < count; ++i) {
    slots.emplace_back(size).SetIdx(i);
    if (!slots.back().HasStorage()) {
      return {};
    }
  }
  for (std::size_t i = 0; i < slots.size(); ++i) {
    slots[i].SetNextBuf(&slots[(i + 1) % slots.size()]);
  }
  return slots;
}

}  // namespace cms
