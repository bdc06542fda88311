#include "cms/live/internal/decode_queue.h"

#include <cstring>
#include <new>

#include "cms/live/media/input_padding.h"

namespace cms {

void DecodeQueue::Start() {
  const ScopeLock guard(lock_);
  freeCount_ = 0;
  for (int slot = 0; slot < kMaxFrames; ++slot) {
    free_[static_cast<std::size_t>(freeCount_++)] = slot;
  }
  first_ = queued_ = 0;
  taken_ = -1;
  bytes_ = 0;
  stopped_ = false;
}

void DecodeQueue::Clear() {
  const ScopeLock guard(lock_);
  for (; queued_ > 0; --queued_) {
    const int slot = order_[static_cast<std::size_t>(first_)];
    first_ = (first_ + 1) % kMaxFrames;
    bytes_ -= static_cast<std::size_t>(slots_[static_cast<std::size_t>(slot)].length);
    free_[static_cast<std::size_t>(freeCount_++)] = slot;
  }
}

void DecodeQueue::Stop() {
  const ScopeLock guard(lock_);
  stopped_ = true;
  ready_.notify_all();
}

bool DecodeQueue::Put(const std::uint8_t* data, int length) {
  if (data == nullptr || length <= 0) {
    return false;
  }
  const std::size_t size = static_cast<std::size_t>(length);
  const ScopeLock guard(lock_);
  if (stopped_ || freeCount_ == 0 || size > kMaxBytes - bytes_) {
    return false;
  }
  const int index = free_[static_cast<std::size_t>(freeCount_ - 1)];
  Slot& slot = slots_[static_cast<std::size_t>(index)];
  const std::size_t needed = size + kInputPadding;
  if (slot.capacity < needed) {
    const std::size_t capacity = needed + needed / 4;
    slot.memory.reset(new (std::nothrow) std::uint8_t[capacity]);
    slot.capacity = slot.memory ? capacity : 0;
    if (!slot.memory) {
      return false;
    }
  }
  std::memcpy(slot.memory.get(), data, size);
  std::memset(slot.memory.get() + size, 0, kInputPadding);
  slot.length = length;
  --freeCount_;
  order_[static_cast<std::size_t>((first_ + queued_) % kMaxFrames)] = index;
  ++queued_;
  bytes_ += size;
  ready_.notify_one();
  return true;
}

bool DecodeQueue::Take(Frame& frame) {
  const ScopeLock guard(lock_);
  while (!stopped_ && queued_ == 0) {
    ready_.wait(lock_);
  }
  if (stopped_) {
    return false;
  }
  taken_ = order_[static_cast<std::size_t>(first_)];
  first_ = (first_ + 1) % kMaxFrames;
  --queued_;
  const Slot& slot = slots_[static_cast<std::size_t>(taken_)];
  frame = {slot.memory.get(), slot.length};
  return true;
}

void DecodeQueue::Done() {
  const ScopeLock guard(lock_);
  if (taken_ < 0) {
    return;
  }
  bytes_ -= static_cast<std::size_t>(slots_[static_cast<std::size_t>(taken_)].length);
  free_[static_cast<std::size_t>(freeCount_++)] = taken_;
  taken_ = -1;
}

}  // namespace cms
