#include "tools/testcamera/frame_stamp.h"

#include <algorithm>
#include <array>
#include <string>

namespace testcamera {
namespace {

constexpr int kBits = 16;
constexpr std::uint8_t kBlack = 16;
constexpr std::uint8_t kWhite = 235;
constexpr std::uint8_t kGrey = 128;

unsigned CodeWord(unsigned number) {
  number &= 0xFFF;
  const unsigned check = (number ^ (number >> 4) ^ (number >> 8) ^ 0x5) & 0xF;
  return number << 4 | check;
}

void FillRectangle(const Planes& planes, int x, int y, int width, int height, std::uint8_t luma) {
  const int right = std::min(x + width, planes.width);
  const int bottom = std::min(y + height, planes.height);
  for (int row = y; row < bottom; ++row) {
    std::fill(planes.luma + static_cast<std::size_t>(row) * planes.lumaStride + x,
              planes.luma + static_cast<std::size_t>(row) * planes.lumaStride + right, luma);
  }
  for (int plane = 0; plane < 2; ++plane) {
    for (int row = y / 2; row < (bottom + 1) / 2; ++row) {
      std::uint8_t* line =
          planes.chroma[plane] + static_cast<std::size_t>(row) * planes.chromaStride[plane];
      std::fill(line + x / 2, line + (right + 1) / 2, kGrey);
    }
  }
}

// Digits of 3x5 dots, a row of dots for three bits, top row first.
constexpr std::array<unsigned, 10> kDigits = {075557, 026227, 071747, 071717, 055711,
                                              074717, 074757, 071111, 075757, 075717};

void DrawNumber(const Planes& planes, int x, int y, int dot, unsigned number) {
  const std::string text = std::to_string(number);
  FillRectangle(planes, x, y, dot * (4 * static_cast<int>(text.size()) + 1), dot * 7, kBlack);
  for (const char each : text) {
    const unsigned rows = kDigits[static_cast<std::size_t>(each - '0')];
    for (int bit = 0; bit < 15; ++bit) {
      if ((rows >> (14 - bit) & 1) != 0) {
        FillRectangle(planes, x + dot * (1 + bit % 3), y + dot * (1 + bit / 3), dot, dot, kWhite);
      }
    }
    x += 4 * dot;
  }
}

}  // namespace

void StampFrame(const Planes& planes, unsigned number) {
  const int block = std::min(16, planes.width / kBits);
  const unsigned code = CodeWord(number);
  for (int bit = 0; bit < kBits; ++bit) {
    const bool white = (code >> (kBits - 1 - bit) & 1) != 0;
    FillRectangle(planes, bit * block, 0, block, block, white ? kWhite : kBlack);
  }
  if (planes.width >= 64 && planes.height >= 48) {
    DrawNumber(planes, 0, (block + 3) & ~1, std::max(2, planes.height / 90) & ~1, number);
  }
}

}  // namespace testcamera
