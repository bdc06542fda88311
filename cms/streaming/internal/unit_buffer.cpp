#include "cms/streaming/internal/unit_buffer.h"

#include <algorithm>
#include <new>

namespace cms {

void UnitBuffer::Free::operator()(std::uint8_t* memory) const {
  ::operator delete (memory, std::align_val_t{kAlignment});
}

bool UnitBuffer::Grow(std::size_t count) {
  if (count > most_ - size_) {
    return false;
  }
  const std::size_t capacity =
      std::min(most_, std::max({2 * capacity_, size_ + count, kFirstRoom}));
  std::unique_ptr<std::uint8_t, Free> memory(static_cast<std::uint8_t*>(
      ::operator new (kOffset + capacity + kTailRoom, std::align_val_t{kAlignment}, std::nothrow)));
  if (!memory) {
    return false;
  }
  if (size_ > 0) {
    std::memcpy(memory.get() + kOffset, begin_, size_);
  }
  memory_ = std::move(memory);
  begin_ = memory_.get() + kOffset;
  capacity_ = capacity;
  return true;
}

std::span<std::uint8_t> UnitBuffer::Insert(std::size_t offset, std::size_t count) {
  begin_ -= count;
  size_ += count;
  std::memmove(begin_, begin_ + count, offset);
  return {begin_ + offset, count};
}

}  // namespace cms
