// JPEGs written by hand: patches of exact colours, in any chroma sampling.
#pragma once

#include <cstdint>
#include <vector>

namespace test {

struct YCbCr {
  int y, cb, cr;  // 0 to 255
};

// The sampling factors of the brightness against those of the colours, which are 1x1.
struct JpegSampling {
  int across = 1;
  int down = 1;
  bool grey = false;  // one component; the factors are 1x1 then
};

// Patches of 32x32 pixels from left to right, `rows` times below one another. Every sample has
// exactly the patch's value: blocks are flat, and the quantisation is 1.
std::vector<std::uint8_t> FlatJpeg(const std::vector<YCbCr>& patches, int rows,
                                   JpegSampling sampling);

}  // namespace test
