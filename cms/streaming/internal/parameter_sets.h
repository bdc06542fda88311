// The parameter sets that a session description carries (RFC 6184, 8.1, sprop-parameter-sets; RFC
// 7798, 7.1, sprop-vps, sprop-sps and sprop-pps).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace cms {

inline constexpr std::size_t kMaxParameterSetText = 4096;  // Base64 characters of one set

// The NAL units, without start codes, of a list of Base64 texts separated by commas. Padding may be
// missing. An item that is no Base64 text, is longer than kMaxParameterSetText or holds no more
// than a type byte is left out.
std::vector<std::vector<std::uint8_t>> DecodeNalUnits(std::string_view list);

// NAL units without start codes; empty when the list has none.
struct ParameterSets {
  std::vector<std::uint8_t> sps;
  std::vector<std::uint8_t> pps;
};

// Of such a list of H.264 the first sequence and the first picture parameter set, told by their NAL
// unit types and in any order.
ParameterSets DecodeParameterSets(std::string_view list);

}  // namespace cms
