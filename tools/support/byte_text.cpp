#include "tools/support/byte_text.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tools/support/options.h"

namespace tools {
namespace {

constexpr std::string_view kUnits = "BKMGTP";
constexpr double kMostBytes = 1e18;

}  // namespace

std::uint64_t ReadBytes(const std::string& option, const std::string& text) {
  char* rest = nullptr;
  double number = std::strtod(text.c_str(), &rest);
  std::string unit;
  for (const char* at = rest; *at != '\0'; ++at) {
    if (*at != ' ') {
      unit += static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
    }
  }
  if (unit.size() == 2 && unit[0] != 'B' && unit[1] == 'B') {
    unit.pop_back();
  }
  const std::size_t power = unit.empty() ? 0 : kUnits.find(unit);
  for (std::size_t i = 0; power != std::string_view::npos && i < power; ++i) {
    number *= 1000;
  }
  if (rest == text.c_str() || unit.size() > 1 || power == std::string_view::npos ||
      !(number >= 0 && number <= kMostBytes)) {
    throw UsageError(option, "\"" + text + "\" is no size; write 500G, 1.5T or a number of bytes");
  }
  return static_cast<std::uint64_t>(number);
}

std::string TextOfBytes(std::uint64_t bytes) {
  auto number = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (number >= 1000 && unit + 1 < kUnits.size()) {
    number /= 1000;
    ++unit;
  }
  std::array<char, 32> text{};
  if (unit == 0) {
    std::snprintf(text.data(), text.size(), "%.0f B", number);
  } else {
    std::snprintf(text.data(), text.size(), "%.2f %cB", number, kUnits[unit]);
  }
  return text.data();
}

}  // namespace tools
