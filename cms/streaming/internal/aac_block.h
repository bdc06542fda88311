// AacBlock: the memory in which an access unit of AAC gets its ADTS header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "cms/live/media/input_padding.h"
#include "cms/live/media/internal/adts.h"

namespace cms {

// An access unit as it is handed on.
struct AacUnit {
  // An ADTS frame: a header of 7 bytes, then the access unit. Valid until the next call;
  // AacBlock::kFrontRoom bytes in front of it are the caller's to write, kTailRoom bytes behind it
  // zeros.
  std::span<std::uint8_t> block;
  std::uint32_t timestamp = 0;  // of its first sample, in the stream's RTP clock
};

// One block, allocated once. Its owner writes the access unit, then finishes it.
class AacBlock {
 public:
  static constexpr std::size_t kFrontRoom = 128;
  static constexpr std::size_t kTailRoom = kInputPadding;
  static constexpr std::size_t kMostUnitBytes = 8191 - kAdtsHeaderSize;  // what ADTS can say

  std::uint8_t* Unit() { return memory_.get() + kFrontRoom + kAdtsHeaderSize; }

  // The block of a unit of so many bytes, kMostUnitBytes at most.
  std::span<std::uint8_t> Finish(const AdtsFormat& format, std::size_t size) {
    const std::span<std::uint8_t> block(Unit() - kAdtsHeaderSize, kAdtsHeaderSize + size);
    WriteAdtsHeader(block.first<kAdtsHeaderSize>(), format, size);
    std::memset(Unit() + size, 0, kTailRoom);
    return block;
  }

 private:
  const std::unique_ptr<std::uint8_t[]> memory_ =
      std::make_unique<std::uint8_t[]>(kFrontRoom + kAdtsHeaderSize + kMostUnitBytes + kTailRoom);
};

}  // namespace cms
