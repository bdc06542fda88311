#include "cms/recording/internal/disk_buffers.h"

#include <algorithm>
#include <atomic>
#include <new>

namespace cms {
namespace {

std::atomic<unsigned> spareBuffers{DiskBuffers::kSpare};

bool TakeSpare() {
  unsigned left = spareBuffers.load(std::memory_order_relaxed);
  while (left > 0 && !spareBuffers.compare_exchange_weak(left, left - 1)) {
  }
  return left > 0;
}

}  // namespace

DiskBuffers::DiskBuffers() : memory_(new (std::nothrow) std::uint8_t[std::size_t{kOwn} * kSize]) {
  own_.reserve(kOwn);
  for (unsigned i = kOwn; memory_ && i > 0; --i) {
    own_.push_back(memory_.get() + std::size_t{i - 1} * kSize);
  }
}

unsigned DiskBuffers::Free() const {
  const unsigned spare = spareBuffers.load(std::memory_order_relaxed);
  return static_cast<unsigned>(own_.size()) + std::min(spare, kMost - kOwn - spareUsed_);
}

std::uint8_t* DiskBuffers::Take() {
  if (!own_.empty()) {
    std::uint8_t* const buffer = own_.back();
    own_.pop_back();
    return buffer;
  }
  if (spareUsed_ == kMost - kOwn || !TakeSpare()) {
    return nullptr;
  }
  auto* const buffer = new (std::nothrow) std::uint8_t[kSize];
  if (buffer == nullptr) {
    ++spareBuffers;
    return nullptr;
  }
  ++spareUsed_;
  return buffer;
}

void DiskBuffers::Give(std::uint8_t* buffer) {
  const std::uint8_t* const begin = memory_.get();
  if (buffer >= begin && buffer < begin + std::size_t{kOwn} * kSize) {
    own_.push_back(buffer);
    return;
  }
  delete[] buffer;
  --spareUsed_;
  ++spareBuffers;
}

}  // namespace cms
