// H.264 from the form of streams (start codes) into that of files (lengths), ITU-T H.264 annex B
// and ISO/IEC 14496-15.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace cms {

// The decoder configuration record of parameter sets with start codes; empty without an SPS and a
// PPS. `chromaFormat` is 0 to 3 (4:2:0 is 1); it and the bit depth stand in it for high profiles.
std::vector<std::uint8_t> AvcConfiguration(std::span<const std::uint8_t> parameterSets,
                                           int chromaFormat, int bitDepth);

// Puts the length of each unit in the place of its start code. A frame with codes of three bytes
// is made anew in `scratch`; the result is a view of the frame or of that. Zeros in front of a code
// of four bytes stay where they are.
std::span<const std::uint8_t> LengthsForStartCodes(std::span<std::uint8_t> frame,
                                                   std::vector<std::uint8_t>& scratch);

}  // namespace cms
