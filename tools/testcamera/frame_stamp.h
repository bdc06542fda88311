// Marks each picture with its number, for programs and for people.
#pragma once

#include <cstddef>
#include <cstdint>

namespace testcamera {

// The luma and chroma planes of a picture with 4:2:0 sampling.
struct Planes {
  std::uint8_t* luma;
  std::uint8_t* chroma[2];
  std::size_t lumaStride;
  std::size_t chromaStride[2];
  int width;
  int height;
};

// Paints a row of 16 black or white blocks at the top left, the highest bit first: 12 bits of the
// number and 4 check bits. A block measures 16x16, or a sixteenth of the width when that is less.
// Below it the number stands in digits. Pictures narrower than 64 or lower than 48 get no digits.
void StampFrame(const Planes& planes, unsigned number);

}  // namespace testcamera
