// RecordingBuffer, where the bytes of a recorded file gather before they go to its disk.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>

#include "cms/recording/internal/disk_buffers.h"
#include "cms/runtime/clock.h"

namespace cms {

// Not for concurrent use.
class RecordingBuffer {
 public:
  static constexpr std::uint32_t kSize = DiskBuffers::kSize;

  void Allocate() {
    if (!memory_) {
      memory_.reset(new std::uint8_t[kSize]);  // written before it is read
    }
  }

  std::uint32_t Length() const { return length_; }
  std::uint32_t Room() const { return kSize - length_; }
  std::span<const std::uint8_t> Bytes() const { return {memory_.get(), length_}; }
  // Whether its oldest byte has waited for at least `age` milliseconds.
  bool IsOld(std::uint64_t now, std::uint32_t age) const {
    return length_ > 0 && now - since_ >= age;
  }

  // The place of the next bytes, `size` of them or as many as there is room for: the caller's to
  // fill at once.
  std::span<std::uint8_t> Extend(std::size_t size) {
    since_ = length_ == 0 ? TickMilliseconds() : since_;
    const std::uint32_t begin = length_;
    length_ += static_cast<std::uint32_t>(std::min<std::size_t>(size, Room()));
    return {memory_.get() + begin, length_ - begin};
  }
  void Clear() { length_ = 0; }

 private:
  std::unique_ptr<std::uint8_t[]> memory_;
  std::uint32_t length_ = 0;
  std::uint64_t since_ = 0;  // tick of the oldest byte
};

}  // namespace cms
