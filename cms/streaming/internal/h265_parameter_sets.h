// What an H.265 sequence parameter set says of its pictures.
#pragma once

#include <cstdint>
#include <optional>

#include "cms/streaming/stream_probes.h"

namespace cms {

struct H265Sps {
  std::uint32_t number = 0;        // sps_seq_parameter_set_id
  PictureSize size;                // of the conformance window, what a decoder shows
  std::uint32_t profile = 0;       // general_profile_idc: 1 Main, 2 Main 10, 4 range extensions
  std::uint32_t level = 0;         // general_level_idc, 30 times the level
  std::uint32_t chromaFormat = 1;  // chroma_format_idc: 0 grey, 1 4:2:0, 2 4:2:2, 3 4:4:4
  std::uint32_t lumaBits = 8;
  // Pictures per second are timeScale / unitsInTick; both 0 when the set does not tell.
  std::uint32_t unitsInTick = 0;
  std::uint32_t timeScale = 0;
};

// Reads a set from the byte behind its NAL header (ITU-T H.265, 7.3.2.2 and E.2.1). Nothing when it
// breaks a limit or is cut short in front of its timing. Pure; any thread.
std::optional<H265Sps> ReadH265Sps(Bytes sps);

}  // namespace cms
