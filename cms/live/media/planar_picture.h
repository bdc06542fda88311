// PlanarPicture: a decoded picture as the codec leaves it, for those who draw by themselves.
#pragma once

#include <cstdint>

namespace cms {

// 8 bits a sample, of colour one for 2x2 pixels (4:2:0), rounded up; planes Y, U, V.
struct PlanarPicture {
  int width = 0;  // pixels
  int height = 0;
  const std::uint8_t* planes[3] = {};
  int strides[3] = {};     // bytes from one row to the next
  bool fullRange = false;  // samples from 0 to 255 (JPEG), not from 16 to 235
  bool bt709 = false;      // its matrix; else BT.601
};

}  // namespace cms
