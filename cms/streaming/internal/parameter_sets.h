// The H.264 parameter sets that a session description carries (RFC 6184, 8.1,
// sprop-parameter-sets).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace cms {

inline constexpr std::size_t kMaxParameterSetText = 4096;  // Base64 characters of one set

// NAL units without start codes; empty when the list has none.
struct ParameterSets {
  std::vector<std::uint8_t> sps;
  std::vector<std::uint8_t> pps;
};

// Reads a list of Base64 texts separated by commas and keeps the first sequence and the first
// picture parameter set, told by their NAL unit types and in any order. Padding may be missing. An
// item that is no Base64 text, is longer than kMaxParameterSetText or holds another NAL unit is
// left out.
ParameterSets DecodeParameterSets(std::string_view list);

}  // namespace cms
