// ITU-T G.711, one sample or many: A-law and mu-law in the form of the CCITT reference programs.
//
// 16-bit samples are cut to the 13 (A-law) or 14 (mu-law) bits that the recommendation knows by an
// arithmetic shift, so negative samples round away from zero; other encoders choose the nearest
// code instead and differ there by one step.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace cms {

constexpr std::uint8_t EncodeALaw(std::int16_t sample) {
  const int cut = sample >> 3;
  const int mask = cut >= 0 ? 0xD5 : 0x55;
  const auto magnitude = static_cast<unsigned>(cut >= 0 ? cut : -cut - 1);
  // Segments end at 31, 63, 127 ... 4095.
  const int segment = std::max(static_cast<int>(std::bit_width(magnitude)) - 5, 0);
  if (segment > 7) {
    return static_cast<std::uint8_t>(0x7F ^ mask);
  }
  const unsigned mantissa = (magnitude >> std::max(segment, 1)) & 0xF;
  return static_cast<std::uint8_t>((static_cast<unsigned>(segment) << 4 | mantissa) ^
                                   static_cast<unsigned>(mask));
}

constexpr std::int16_t DecodeALaw(std::uint8_t code) {
  const int plain = code ^ 0x55;
  const int segment = (plain & 0x70) >> 4;
  int magnitude = (plain & 0xF) * 16 + 8;
  if (segment > 0) {
    magnitude = (magnitude + 256) << (segment - 1);
  }
  return static_cast<std::int16_t>((plain & 0x80) != 0 ? magnitude : -magnitude);
}

constexpr std::uint8_t EncodeMuLaw(std::int16_t sample) {
  constexpr int kClip = 8159;
  constexpr int kBias = 33;
  const int cut = sample >> 2;
  const int mask = cut >= 0 ? 0xFF : 0x7F;
  const auto magnitude = static_cast<unsigned>(std::min(cut >= 0 ? cut : -cut, kClip) + kBias);
  // Segments end at 63, 127 ... 8191.
  const int segment = std::max(static_cast<int>(std::bit_width(magnitude)) - 6, 0);
  if (segment > 7) {
    return static_cast<std::uint8_t>(0x7F ^ mask);
  }
  const unsigned mantissa = (magnitude >> (segment + 1)) & 0xF;
  return static_cast<std::uint8_t>((static_cast<unsigned>(segment) << 4 | mantissa) ^
                                   static_cast<unsigned>(mask));
}

constexpr std::int16_t DecodeMuLaw(std::uint8_t code) {
  constexpr int kBias = 132;
  const int plain = ~code & 0xFF;
  const int magnitude = (((plain & 0xF) * 8 + kBias) << ((plain & 0x70) >> 4)) - kBias;
  return static_cast<std::int16_t>((plain & 0x80) != 0 ? -magnitude : magnitude);
}

// Many samples by tables. `count` codes and samples; the ranges do not overlap.
void EncodeALaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes);
void DecodeALaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples);
void EncodeMuLaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes);
void DecodeMuLaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples);

}  // namespace cms
