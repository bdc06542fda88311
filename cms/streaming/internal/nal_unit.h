// What the NAL units of H.264 and H.265 are for whoever puts pictures together from them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cms {

enum class NalCodec : std::uint8_t { kH264, kH265 };

// ITU-T H.264, table 7-1.
enum H264Nal : unsigned {
  kH264Slice = 1,
  kH264IdrSlice = 5,
  kH264Sei = 6,
  kH264Sps = 7,
  kH264Pps = 8,
  kH264Delimiter = 9,
};

// ITU-T H.265, table 7-1.
enum H265Nal : unsigned {
  kH265RaslN = 8,
  kH265RaslR = 9,
  kH265FirstIrap = 16,
  kH265LastBla = 18,
  kH265Cra = 21,
  kH265LastIrap = 23,
  kH265LastSlice = 31,
  kH265Vps = 32,
  kH265Sps = 33,
  kH265Pps = 34,
  kH265Delimiter = 35,
  kH265PrefixSei = 39,
};

// Where a unit stands in its access unit.
enum class NalPlace : std::uint8_t {
  kInFront,       // of the picture's first slice: delimiter, SEI
  kParameterSet,  // likewise
  kPicture,       // a slice, or a part of one
  kBehind,        // behind the first slice: filler data, end of sequence, suffix SEI
};

constexpr std::size_t NalHeaderSize(NalCodec codec) {
  return codec == NalCodec::kH264 ? 1 : 2;
}

constexpr unsigned NalType(NalCodec codec, std::uint8_t firstByte) {
  return codec == NalCodec::kH264 ? firstByte & 0x1Fu : firstByte >> 1 & 0x3Fu;
}

// A picture that decoding can begin with (H.265, 3.63).
constexpr bool IsIrap(unsigned h265Type) {
  return h265Type >= kH265FirstIrap && h265Type <= kH265LastIrap;
}

// A picture that refers to one in front of the CRA or BLA picture that it follows.
constexpr bool IsRasl(unsigned h265Type) {
  return h265Type == kH265RaslN || h265Type == kH265RaslR;
}

constexpr bool IsDelimiterUnit(NalCodec codec, unsigned type) {
  return codec == NalCodec::kH264 ? type == kH264Delimiter : type == kH265Delimiter;
}

// Of the SEI units that stand in front of their picture.
constexpr bool IsSei(NalCodec codec, unsigned type) {
  return codec == NalCodec::kH264 ? type == kH264Sei : type == kH265PrefixSei;
}

// The types of the parameter sets lie side by side, each in front of those that refer to it.
constexpr unsigned FirstSetType(NalCodec codec) {
  return codec == NalCodec::kH264 ? unsigned{kH264Sps} : unsigned{kH265Vps};
}
constexpr unsigned SetKinds(NalCodec codec) {
  return codec == NalCodec::kH264 ? 2 : 3;
}
constexpr bool IsSps(NalCodec codec, unsigned type) {
  return codec == NalCodec::kH264 ? type == kH264Sps : type == kH265Sps;
}

// H.264, 7.4.1.2.3; H.265, 7.4.2.4.4.
constexpr NalPlace NalPlaceOf(NalCodec codec, unsigned type) {
  if (codec == NalCodec::kH264) {
    if (type >= kH264Slice && type <= kH264IdrSlice) {
      return NalPlace::kPicture;
    }
    if (type == kH264Sps || type == kH264Pps) {
      return NalPlace::kParameterSet;
    }
    const bool front = type == kH264Sei || type == kH264Delimiter || (type >= 13 && type <= 18);
    return front ? NalPlace::kInFront : NalPlace::kBehind;
  }
  if (type <= kH265LastSlice) {
    return NalPlace::kPicture;
  }
  if (type <= kH265Pps) {
    return NalPlace::kParameterSet;
  }
  const bool front = type == kH265Delimiter || type == kH265PrefixSei ||
                     (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
  return front ? NalPlace::kInFront : NalPlace::kBehind;
}

}  // namespace cms
