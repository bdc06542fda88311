#include "cms/playback/clip/internal/avc_units.h"

#include <algorithm>
#include <cstddef>

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

void AppendSets(std::vector<std::uint8_t>& record, std::span<const std::uint8_t> bytes,
                std::uint8_t type, std::uint8_t countBits) {
  const std::size_t count = record.size();
  record.push_back(countBits);
  ForEachUnit(bytes, [&](const Unit& unit, std::size_t length) {
    if (length >= 4 && length <= 0xFFFF && (bytes[unit.begin] & 0x1F) == type) {
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
  constexpr std::uint8_t kSps = 7;
  constexpr std::uint8_t kPps = 8;
  std::vector<std::uint8_t> record = {1, 0, 0, 0, 0xFF};  // lengths of four bytes
  AppendSets(record, parameterSets, kSps, 0xE0);
  const std::size_t pictureSets = record.size();
  AppendSets(record, parameterSets, kPps, 0);
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

}  // namespace cms
