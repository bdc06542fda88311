// Start codes in front of NAL units (ITU-T H.264 and H.265, annex B).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cms/streaming/stream_probes.h"

namespace cms {

inline constexpr std::array<std::uint8_t, 4> kNalStartCode = {0, 0, 0, 1};
inline constexpr std::size_t kShortStartCode = 3;  // the same without the first zero

// The position behind the next 00 00 01 that begins at `at` or later, or the size of the data.
inline std::size_t EndOfStartCode(Bytes data, std::size_t at) {
  for (at += 2; at < data.size(); ++at) {
    const void* const one = std::memchr(data.data() + at, 1, data.size() - at);
    if (one == nullptr) {
      break;
    }
    at = static_cast<std::size_t>(static_cast<const unsigned char*>(one) - data.data());
    if (data[at - 1] == 0 && data[at - 2] == 0) {
      return at + 1;
    }
  }
  return data.size();
}

}  // namespace cms
