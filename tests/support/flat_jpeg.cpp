#include "tests/support/flat_jpeg.h"

#include <cstdlib>

namespace test {
namespace {

constexpr int kPatch = 32;

class JpegWriter {
 public:
  void Bytes(std::initializer_list<int> bytes) {
    for (const int byte : bytes) {
      out_.push_back(static_cast<std::uint8_t>(byte));
    }
  }
  void Bits(unsigned value, int count) {
    for (int bit = count - 1; bit >= 0; --bit) {
      pending_ = pending_ << 1 | (value >> bit & 1);
      if (++pendingBits_ == 8) {
        Bytes({static_cast<int>(pending_ & 255)});
        if ((pending_ & 255) == 255) {
          Bytes({0});
        }
        pendingBits_ = 0;
      }
    }
  }
  // A block whose samples all differ by `step` from those of the block before. The codes of the
  // tables below: four bits for the length of a difference, one for the end of a block.
  void FlatBlock(int step) {
    const int difference = 8 * step;
    int length = 0;
    while (std::abs(difference) >> length != 0) {
      ++length;
    }
    Bits(static_cast<unsigned>(length), 4);
    Bits(static_cast<unsigned>(difference < 0 ? difference + (1 << length) - 1 : difference),
         length);
    Bits(0, 1);
  }
  void Fill() {
    while (pendingBits_ != 0) {
      Bits(1, 1);
    }
  }
  std::vector<std::uint8_t> Take() { return std::move(out_); }

 private:
  std::vector<std::uint8_t> out_;
  unsigned pending_ = 0;
  int pendingBits_ = 0;
};

}  // namespace

std::vector<std::uint8_t> FlatJpeg(const std::vector<YCbCr>& patches, int rows,
                                   JpegSampling sampling) {
  const int width = kPatch * static_cast<int>(patches.size());
  const int height = kPatch * rows;
  const int components = sampling.grey ? 1 : 3;
  JpegWriter out;
  out.Bytes({0xFF, 0xD8, 0xFF, 0xDB, 0, 67, 0});
  for (int i = 0; i < 64; ++i) {
    out.Bytes({1});
  }
  out.Bytes({0xFF, 0xC0, 0, 8 + 3 * components, 8, height >> 8, height & 255, width >> 8,
             width & 255, components});
  out.Bytes({1, sampling.across << 4 | sampling.down, 0});
  for (int id = 2; id <= components; ++id) {
    out.Bytes({id, 0x11, 0});
  }
  // Lengths of 0 to 11 bits have codes of four bits; the end of a block has one of one bit.
  out.Bytes({0xFF, 0xC4, 0, 31, 0x00, 0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  out.Bytes({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
  out.Bytes({0xFF, 0xC4, 0, 20, 0x10, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  out.Bytes({0xFF, 0xDA, 0, 6 + 2 * components, components});
  for (int id = 1; id <= components; ++id) {
    out.Bytes({id, 0});
  }
  out.Bytes({0, 63, 0});
  YCbCr before{128, 128, 128};
  const int unitWidth = 8 * sampling.across;
  for (int unit = 0; unit < width * height / (unitWidth * 8 * sampling.down); ++unit) {
    const YCbCr& patch = patches[static_cast<std::size_t>(unit * unitWidth % width / kPatch)];
    out.FlatBlock(patch.y - before.y);
    for (int more = 1; more < sampling.across * sampling.down; ++more) {
      out.FlatBlock(0);
    }
    if (!sampling.grey) {
      out.FlatBlock(patch.cb - before.cb);
      out.FlatBlock(patch.cr - before.cr);
    }
    before = patch;
  }
  out.Fill();
  out.Bytes({0xFF, 0xD9});
  return out.Take();
}

}  // namespace test
