// The ring of slots under the frame and the circular buffer.
#pragma once

#include <vector>

#include "cms/live/media/buffer.h"

namespace cms {

// `count` slots of `size` bytes, numbered and linked into a ring; empty when either is not positive
// or there is no memory for all of them.
std::vector<CBuffer> MakeSlotRing(long count, long size);

// The slot behind `slot`, or the one behind that when it is `skipped`.
inline CBuffer* NextSlot(const CBuffer* slot, const CBuffer* skipped) {
  CBuffer* const next = slot->GetNextBuf();
  return next == skipped ? next->GetNextBuf() : next;
}

}  // namespace cms
