#include "tools/serve/form_text.h"

#include <algorithm>
#include <charconv>

namespace tools {
namespace {

std::optional<std::string> FormDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i] == '+' ? ' ' : text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) {
      return std::nullopt;
    }
    decoded += static_cast<char>(value);
    i += 2;
  }
  return decoded;
}

}  // namespace

std::optional<std::string_view> ItemOf(std::string_view text, char separator,
                                       std::string_view name) {
  while (!text.empty()) {
    std::string_view item = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(item.size() + 1, text.size()));
    item.remove_prefix(std::min(item.find_first_not_of(' '), item.size()));
    if (item.starts_with(name) && item.substr(name.size()).starts_with('=')) {
      return item.substr(name.size() + 1);
    }
  }
  return std::nullopt;
}

std::optional<std::string_view> CookieOf(std::string_view header, std::string_view name) {
  return ItemOf(header, ';', name);
}

std::optional<std::string> FieldOf(std::string_view form, std::string_view name) {
  const auto item = ItemOf(form, '&', name);
  return item ? FormDecoded(*item) : std::nullopt;
}

}  // namespace tools
