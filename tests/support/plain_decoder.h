// The codec library used as plainly as possible, to compare our decoder's pictures and speed with.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tests/support/encoded_clip.h"

namespace test {

// One thread, one packet a frame, a scaling context per frame with fast bilinear.
class PlainDecoder {
 public:
  explicit PlainDecoder(ClipCodec codec);
  ~PlainDecoder();

  // Rows without gaps; empty when the frame gave no picture.
  std::vector<std::uint8_t> DecodeToBgra(const std::vector<std::uint8_t>& data, int width,
                                         int height);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace test
