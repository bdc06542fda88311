// The layout of recordings: where the frame headers of a .drv file begin, and the records of its
// .idx file. docs/formats.md tells the whole of it; nothing but this and the headers' own files
// (cms/live/media) knows an offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "cms/live/media/drv_header.h"
#include "cms/runtime/api.h"

// One record of an .idx file: a video frame of the .drv file beside it. Little-endian.
struct DrvIdx {
  std::uint32_t channel;       // 0-based
  std::uint32_t offset;        // of the frame's header in the .drv file
  std::uint32_t state;         // the recorder's
  std::uint32_t reserved;      // 0
  std::uint64_t milliseconds;  // frame time since 1970-01-01 UTC
  std::uint32_t frameType;     // a cms::FrameType
  std::uint32_t secondState;   // the recorder's

  bool operator==(const DrvIdx&) const = default;
};
static_assert(sizeof(DrvIdx) == 32 && std::is_trivially_copyable_v<DrvIdx>);
static_assert(offsetof(DrvIdx, channel) == 0 && offsetof(DrvIdx, offset) == 4 &&
              offsetof(DrvIdx, state) == 8 && offsetof(DrvIdx, reserved) == 12 &&
              offsetof(DrvIdx, milliseconds) == 16 && offsetof(DrvIdx, frameType) == 24 &&
              offsetof(DrvIdx, secondState) == 28);

namespace cms {

// How much of a file's head FirstDrvHeader looks at, and the last place that it tries.
inline constexpr std::size_t kDrvScanSize = 4096;
inline constexpr std::size_t kDrvLastScanned = 4079;

// The offset of the first header in the head of a file, judged by its sync byte, its kind and its
// first check byte alone; 0 when there is none, or when fewer than kDrvScanSize bytes are given.
CMS_API std::size_t FirstDrvHeader(std::span<const std::uint8_t> head);

}  // namespace cms
