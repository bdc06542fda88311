// A picture as libavcodec decodes it, for comparisons.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <vector>

namespace test {

// Format, width, height and the samples of all three planes of one encoded 8-bit YUV picture; empty
// when it does not decode cleanly.
std::vector<int> DecodePicture(AVCodecID codec, const std::vector<std::uint8_t>& data);

}  // namespace test
