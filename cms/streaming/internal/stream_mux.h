// StreamMux: how LATM lays AAC out in its elements (ISO/IEC 14496-3, 1.7.3).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "cms/live/media/internal/adts.h"
#include "cms/live/media/internal/bit_reader.h"

namespace cms {

// One program of one layer, as cameras send it.
struct StreamMux {
  static constexpr std::size_t kMostUnits = 64;

  AdtsFormat format;
  std::size_t units = 1;          // access units of an element, kMostUnits at most
  std::size_t constantBytes = 0;  // of each unit; 0: each tells its length in front
  std::uint64_t otherBits = 0;    // of other data behind the units
};

// A StreamMuxConfig; the reader stands behind it afterwards. Nothing where it is cut off, or tells
// of several programs or layers, or of sound that ADTS has no words for.
// `described`: stands in a description, where some end it behind the AudioSpecificConfig.
std::optional<StreamMux> ReadStreamMuxConfig(BitReader& bits, bool described);

}  // namespace cms
