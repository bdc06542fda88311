#include "cms/audio/internal/g711.h"

#include <array>

namespace cms {
namespace {

// What the encoders do depends only on the bits that they keep, so tables of 8 and 16 KiB hold it.
template <int kShift, std::uint8_t (*kEncode)(std::int16_t)>
constexpr auto MakeEncoder() {
  std::array<std::uint8_t, (0x10000 >> kShift)> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    table[i] = kEncode(static_cast<std::int16_t>(i << kShift));
  }
  return table;
}

template <std::int16_t (*kDecode)(std::uint8_t)>
constexpr auto MakeDecoder() {
  std::array<std::int16_t, 256> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    table[i] = kDecode(static_cast<std::uint8_t>(i));
  }
  return table;
}

constexpr auto kALawCodes = MakeEncoder<3, EncodeALaw>();
constexpr auto kMuLawCodes = MakeEncoder<2, EncodeMuLaw>();
constexpr auto kALawSamples = MakeDecoder<DecodeALaw>();
constexpr auto kMuLawSamples = MakeDecoder<DecodeMuLaw>();

}  // namespace

void EncodeALaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes) {
  for (std::size_t i = 0; i < count; ++i) {
    codes[i] = kALawCodes[static_cast<std::uint16_t>(samples[i]) >> 3];
  }
}

void DecodeALaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples) {
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = kALawSamples[codes[i]];
  }
}

void EncodeMuLaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes) {
  for (std::size_t i = 0; i < count; ++i) {
    codes[i] = kMuLawCodes[static_cast<std::uint16_t>(samples[i]) >> 2];
  }
}

void DecodeMuLaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples) {
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = kMuLawSamples[codes[i]];
  }
}

}  // namespace cms
