#include "cms/streaming/internal/parameter_sets.h"

#include <openssl/evp.h>

#include <algorithm>
#include <string>

#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

constexpr int kSequenceParameterSet = 7;
constexpr int kPictureParameterSet = 8;

bool IsBase64(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || IsDigit(c) || c == '+' || c == '/';
}

std::vector<std::uint8_t> DecodeBase64(std::string_view item) {
  if (item.size() > kMaxParameterSetText) return {};
  while (item.ends_with('=')) item.remove_suffix(1);
  // A single character of the last group holds no whole byte: something was cut off.
  if (item.size() % 4 == 1 || !std::all_of(item.begin(), item.end(), IsBase64)) return {};
  const std::size_t size = item.size() * 3 / 4;
  std::string padded(item);
  padded.resize((padded.size() + 3) / 4 * 4, '=');
  std::vector<std::uint8_t> bytes(padded.size() / 4 * 3);
  const int decoded =
      EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                      static_cast<int>(padded.size()));
  if (decoded < 0) return {};
  bytes.resize(size);
  return bytes;
}

}  // namespace

std::vector<std::vector<std::uint8_t>> DecodeNalUnits(std::string_view list) {
  std::vector<std::vector<std::uint8_t>> units;
  while (!list.empty()) {
    const std::size_t end = list.find(',');
    std::vector<std::uint8_t> nal = DecodeBase64(Trim(list.substr(0, end)));
    list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
    if (nal.size() >= 2) units.push_back(std::move(nal));
  }
  return units;
}

ParameterSets DecodeParameterSets(std::string_view list) {
  ParameterSets sets;
  for (std::vector<std::uint8_t>& nal : DecodeNalUnits(list)) {
    const int type = nal[0] & 0x1f;
    if (type == kSequenceParameterSet && sets.sps.empty()) {
      sets.sps = std::move(nal);
    } else if (type == kPictureParameterSet && sets.pps.empty()) {
      sets.pps = std::move(nal);
    }
  }
  return sets;
}

}  // namespace cms
