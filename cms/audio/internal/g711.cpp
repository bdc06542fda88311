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
constexpr auto MakeSamples() {
  std::array<std::int16_t, 256> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    table[i] = kDecode(static_cast<std::uint8_t>(i));
  }
  return table;
}

constexpr auto kALawCodes = MakeEncoder<3, EncodeALaw>();
constexpr auto kMuLawCodes = MakeEncoder<2, EncodeMuLaw>();
constexpr auto kALawSamples = MakeSamples<DecodeALaw>();
constexpr auto kMuLawSamples = MakeSamples<DecodeMuLaw>();

// Four at a time: the look-ups are as fast as the loop around them.
template <typename In, typename Out, typename LookUp>
void Translate(const In* in, std::size_t count, Out* out, LookUp lookUp) {
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const Out first = lookUp(in[i]);
    const Out second = lookUp(in[i + 1]);
    const Out third = lookUp(in[i + 2]);
    const Out fourth = lookUp(in[i + 3]);
    out[i] = first;
    out[i + 1] = second;
    out[i + 2] = third;
    out[i + 3] = fourth;
  }
  for (; i < count; ++i) {
    out[i] = lookUp(in[i]);
  }
}

}  // namespace

void EncodeALaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes) {
  Translate(samples, count, codes, [](std::int16_t sample) {
    return kALawCodes[static_cast<std::uint16_t>(sample) >> 3];
  });
}

void DecodeALaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples) {
  Translate(codes, count, samples, [](std::uint8_t code) { return kALawSamples[code]; });
}

void EncodeMuLaw(const std::int16_t* samples, std::size_t count, std::uint8_t* codes) {
  Translate(samples, count, codes, [](std::int16_t sample) {
    return kMuLawCodes[static_cast<std::uint16_t>(sample) >> 2];
  });
}

void DecodeMuLaw(const std::uint8_t* codes, std::size_t count, std::int16_t* samples) {
  Translate(codes, count, samples, [](std::uint8_t code) { return kMuLawSamples[code]; });
}

}  // namespace cms
