#include "cms/playback/clip/internal/file_units.h"

#include <algorithm>
#include <cstddef>

#include "cms/live/media/internal/bit_reader.h"
#include "cms/streaming/internal/nal_unit.h"

namespace cms {
namespace {

struct Unit {
  std::size_t code = 0;   // where its start code begins
  std::size_t begin = 0;  // behind the code
};

constexpr std::size_t kCode = 3;  // the shorter one's size

bool IsCode(const std::uint8_t* bytes) {
  return (bytes[0] | bytes[1] | (bytes[2] ^ 1)) == 0;
}

// Whether two zeros begin at one of the kBlock bytes, as few do that begin no code. Looks at all of
// them without branching, which the compiler makes a few vector instructions.
constexpr std::size_t kBlock = 64;
bool HasZeros(const std::uint8_t* bytes) {
  std::uint8_t found = 0;
  for (std::size_t i = 0; i < kBlock; ++i) {
    found = static_cast<std::uint8_t>(found | ((bytes[i] | bytes[i + 1]) == 0 ? 1 : 0));
  }
  return found != 0;
}

// The next start code that begins at `from` or behind it.
bool FindUnit(std::span<const std::uint8_t> bytes, std::size_t from, Unit& unit) {
  for (std::size_t at = from; at + kCode <= bytes.size();) {
    const bool block = at + kBlock + kCode - 1 <= bytes.size();
    const std::size_t end = block ? at + kBlock : bytes.size() - kCode + 1;
    for (at = block && !HasZeros(&bytes[at]) ? end : at; at < end; ++at) {
      if (IsCode(&bytes[at])) {
        unit.code = at > from && bytes[at - 1] == 0 ? at - 1 : at;
        unit.begin = at + kCode;
        return true;
      }
    }
  }
  return false;
}

constexpr std::size_t kLength = 4;

void PutLength(std::uint8_t* to, std::size_t length) {
  for (std::size_t i = 0; i < kLength; ++i) {
    to[i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
  }
}

// Calls `each` with the units of a frame, from their codes up to the next.
template <typename Each>
void ForEachUnit(std::span<const std::uint8_t> bytes, Each each) {
  Unit unit;
  bool found = FindUnit(bytes, 0, unit);
  while (found) {
    Unit next;
    const bool more = FindUnit(bytes, unit.begin, next);
    each(unit, (more ? next.code : bytes.size()) - unit.begin);
    unit = next;
    found = more;
  }
}

bool IsHighProfile(std::uint8_t profile) {
  constexpr std::uint8_t kOthers[] = {66, 77, 88};
  return std::find(std::begin(kOthers), std::end(kOthers), profile) == std::end(kOthers);
}

// ITU-T H.264, 7.3.3 and table 7-6.
bool IsBSlice(std::span<const std::uint8_t> slice) {
  constexpr std::uint32_t kKinds = 5;
  GolombReader bits(slice.subspan(NalHeaderSize(NalCodec::kH264)));
  bits.Unsigned();  // its first macroblock
  const std::uint32_t kind = bits.Unsigned();
  return bits.Ok() && kind % kKinds == 1;
}

// A count, on top of its byte's other bits, and so many units of the type with their lengths.
void AppendSets(std::vector<std::uint8_t>& record, std::span<const std::uint8_t> bytes,
                NalCodec codec, unsigned type, std::uint8_t countBits) {
  const std::size_t count = record.size();
  record.push_back(countBits);
  ForEachUnit(bytes, [&](const Unit& unit, std::size_t length) {
    if (length >= 4 && length <= 0xFFFF && NalType(codec, bytes[unit.begin]) == type) {
      ++record[count];
      record.push_back(static_cast<std::uint8_t>(length >> 8));
      record.push_back(static_cast<std::uint8_t>(length));
      const auto set = bytes.subspan(unit.begin, length);
      record.insert(record.end(), set.begin(), set.end());
    }
  });
}

}  // namespace

std::vector<std::uint8_t> AvcConfiguration(std::span<const std::uint8_t> parameterSets,
                                           int chromaFormat, int bitDepth) {
  std::vector<std::uint8_t> record = {1, 0, 0, 0, 0xFF};  // lengths of four bytes
  AppendSets(record, parameterSets, NalCodec::kH264, kH264Sps, 0xE0);
  const std::size_t pictureSets = record.size();
  AppendSets(record, parameterSets, NalCodec::kH264, kH264Pps, 0);
  if (record[5] == 0xE0 || record[pictureSets] == 0) {
    return {};
  }
  std::copy_n(record.begin() + 9, 3, record.begin() + 1);  // profile, compatibility, level
  if (IsHighProfile(record[1])) {
    const auto depth = static_cast<std::uint8_t>(0xF8 | (bitDepth - 8));
    record.insert(record.end(), {static_cast<std::uint8_t>(0xFC | chromaFormat), depth, depth, 0});
  }
  return record;
}

// ISO/IEC 14496-15, 8.3.3.1.
std::vector<std::uint8_t> HevcConfiguration(std::span<const std::uint8_t> parameterSets,
                                            int chromaFormat, int bitDepth) {
  constexpr std::size_t kProfileTierLevel = 12;
  constexpr std::size_t kHead = 2 + 1 + kProfileTierLevel;  // behind the unit's header and a byte
  std::vector<std::uint8_t> sps;
  bool whole = false;
  ForEachUnit(parameterSets, [&](const Unit& unit, std::size_t length) {
    if (sps.empty() && NalType(NalCodec::kH265, parameterSets[unit.begin]) == kH265Sps) {
      GolombReader bits(parameterSets.subspan(unit.begin, length));
      for (std::size_t i = 0; i < kHead; ++i) {
        sps.push_back(static_cast<std::uint8_t>(bits.Read(8)));
      }
      whole = bits.Ok();
    }
  });
  if (!whole) {
    return {};
  }
  const unsigned layers = (sps[2] >> 1 & 7u) + 1;
  const unsigned nested = sps[2] & 1u;
  const auto depth = static_cast<std::uint8_t>(0xF8 | (bitDepth - 8));
  std::vector<std::uint8_t> record = {1};
  record.insert(record.end(), sps.begin() + 3, sps.end());
  record.insert(record.end(), {0xF0, 0, 0xFC,  // nothing is said of slices and threads
                               static_cast<std::uint8_t>(0xFC | chromaFormat), depth, depth, 0, 0,
                               static_cast<std::uint8_t>(layers << 3 | nested << 2 | 3), 3});
  for (const unsigned type : {kH265Vps, kH265Sps, kH265Pps}) {
    record.insert(record.end(), {static_cast<std::uint8_t>(type), 0});
    const std::size_t count = record.size();
    AppendSets(record, parameterSets, NalCodec::kH265, type, 0);
    if (record[count] == 0) {
      return {};
    }
  }
  return record;
}

std::span<const std::uint8_t> LengthsForStartCodes(std::span<std::uint8_t> frame,
                                                   std::vector<std::uint8_t>& scratch) {
  bool inPlace = true;
  std::size_t first = frame.size();
  // A length never looks like a code: the search has gone past it.
  ForEachUnit(frame, [&](const Unit& unit, std::size_t length) {
    first = std::min(first, unit.code);
    if (inPlace && unit.begin - unit.code == kLength) {
      PutLength(&frame[unit.code], length);
      return;
    }
    if (inPlace) {
      const auto before = frame.first(unit.code).subspan(first);
      scratch.assign(before.begin(), before.end());
      inPlace = false;
    }
    scratch.resize(scratch.size() + kLength);
    PutLength(&scratch[scratch.size() - kLength], length);
    const auto payload = frame.subspan(unit.begin, length);
    scratch.insert(scratch.end(), payload.begin(), payload.end());
  });
  if (inPlace) {
    return frame.subspan(first);
  }
  return scratch;
}

bool AppendPictureUnits(std::span<const std::uint8_t> picture, std::vector<std::uint8_t>& to) {
  bool reordered = false;
  ForEachUnit(picture, [&](const Unit& unit, std::size_t length) {
    constexpr unsigned kFiller = 12;
    const unsigned type =
        length > 0 ? NalType(NalCodec::kH264, picture[unit.begin]) : unsigned{kFiller};
    if (NalPlaceOf(NalCodec::kH264, type) == NalPlace::kParameterSet || type == kH264Delimiter ||
        type == kFiller) {
      return;
    }
    to.resize(to.size() + kLength);
    PutLength(&to[to.size() - kLength], length);
    const auto payload = picture.subspan(unit.begin, length);
    to.insert(to.end(), payload.begin(), payload.end());
    reordered = reordered || (type == kH264Slice && IsBSlice(payload));
  });
  return reordered;
}

// ITU-T H.264, 7.3.2.1.1.
H264Samples H264SamplesOf(std::span<const std::uint8_t> parameterSets) {
  H264Samples samples;
  ForEachUnit(parameterSets, [&](const Unit& unit, std::size_t length) {
    const auto sps = parameterSets.subspan(unit.begin, length);
    if (length < 5 || NalType(NalCodec::kH264, sps[0]) != kH264Sps || !IsHighProfile(sps[1])) {
      return;
    }
    GolombReader bits(sps.subspan(4));
    bits.Unsigned();  // the set's number
    const std::uint32_t chroma = bits.Unsigned();
    if (chroma == 3) {
      bits.Skip(1);
    }
    const std::uint32_t depth = bits.Unsigned();
    if (bits.Ok() && chroma <= 3 && depth <= 6) {
      samples = {static_cast<int>(chroma), static_cast<int>(depth) + 8};
    }
  });
  return samples;
}

}  // namespace cms
