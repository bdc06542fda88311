// H.264 and H.265 from the form of streams (start codes) into that of files (lengths), annex B of
// ITU-T H.264 and H.265, and ISO/IEC 14496-15.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace cms {

// The decoder configuration record of parameter sets with start codes; empty without an SPS and a
// PPS. `chromaFormat` is 0 to 3 (4:2:0 is 1); it and the bit depth stand in it for high profiles.
std::vector<std::uint8_t> AvcConfiguration(std::span<const std::uint8_t> parameterSets,
                                           int chromaFormat, int bitDepth);

// The same of H.265, of VPS, SPS and PPS; empty without all three.
std::vector<std::uint8_t> HevcConfiguration(std::span<const std::uint8_t> parameterSets,
                                            int chromaFormat, int bitDepth);

// Puts the length of each unit in the place of its start code. A frame with codes of three bytes
// is made anew in `scratch`; the result is a view of the frame or of that. Zeros in front of a code
// of four bytes stay where they are.
std::span<const std::uint8_t> LengthsForStartCodes(std::span<std::uint8_t> frame,
                                                   std::vector<std::uint8_t>& scratch);

// Appends the units of an H.264 picture, with start codes, as units with their lengths. Parameter
// sets, which stand in the file's header, and what tells a decoder nothing are left out. Whether it
// has B-slices, which have it shown at another place than it comes in.
bool AppendPictureUnits(std::span<const std::uint8_t> picture, std::vector<std::uint8_t>& to);

// What the decoder configuration record tells besides, of a sequence parameter set among these
// units with start codes; 4:2:0 of 8 bits when there is none, or none of a high profile.
struct H264Samples {
  int chromaFormat = 1;
  int bitDepth = 8;
};
H264Samples H264SamplesOf(std::span<const std::uint8_t> parameterSets);

}  // namespace cms
