// UnitBuffer: where an access unit is put together in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "cms/live/media/input_padding.h"
#include "cms/streaming/stream_probes.h"

namespace cms {

// Grows with what arrives up to a limit and keeps what it has, so that nothing is allocated once
// the largest unit of a stream has been seen. Not locked.
class UnitBuffer {
 public:
  static constexpr std::size_t kFrontRoom = 128;           // in front of the content, for its owner
  static constexpr std::size_t kInsertRoom = 4096;         // most bytes that Insert takes
  static constexpr std::size_t kTailRoom = kInputPadding;  // zeros behind the content
  static constexpr std::size_t kFirstRoom = 0x8000;        // for content, of the first allocation

  // `most`: bytes of content, what is inserted not counted.
  explicit UnitBuffer(std::size_t most) : most_(most) {}

  // False, with the content as it was, when it would pass the limit or memory is short.
  bool Append(Bytes data) {
    if (data.size() > capacity_ - size_ && !Grow(data.size())) [[unlikely]] {
      return false;
    }
    if (!data.empty()) {
      std::memcpy(begin_ + size_, data.data(), data.size());
      size_ += data.size();
    }
    return true;
  }

  // Makes room for `count` bytes behind the first `offset` bytes, which move forward, and gives it.
  // Once for a content, which is not empty, and the last that is added to it.
  std::span<std::uint8_t> Insert(std::size_t offset, std::size_t count);

  void Clear() {
    begin_ = memory_.get() + (memory_ ? kOffset : 0);
    size_ = 0;
  }

  std::size_t Size() const { return size_; }
  // Valid until the next call of a member that is not const.
  std::span<std::uint8_t> Content() const { return {begin_, size_}; }
  // Behind the content, which is not empty.
  void ZeroTail() { std::memset(begin_ + size_, 0, kTailRoom); }

 private:
  static constexpr std::size_t kAlignment = 64;
  static constexpr std::size_t kOffset = kFrontRoom + kInsertRoom;
  static_assert(kOffset % kAlignment == 0);

  struct Free {
    void operator()(std::uint8_t* memory) const;
  };

  bool Grow(std::size_t count);

  std::uint8_t* begin_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;  // of content
  const std::size_t most_;
  std::unique_ptr<std::uint8_t, Free> memory_;
};

}  // namespace cms
