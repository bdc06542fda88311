#include "cms/runtime/wide_text.h"

#include <algorithm>

namespace cms {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLast = 0x10FFFF;

bool IsSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDFFF;
}

char32_t CharacterOf(wchar_t c) {
  const auto code = static_cast<char32_t>(c);
  return code > kLast || IsSurrogate(code) ? kReplacement : code;
}

void AppendUtf8(std::string& out, char32_t c) {
  const auto byte = [&out](char32_t value) { out.push_back(static_cast<char>(value)); };
  if (c < 0x80) {
    byte(c);
  } else if (c < 0x800) {
    byte(0xC0 | c >> 6);
    byte(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    byte(0xE0 | c >> 12);
    byte(0x80 | (c >> 6 & 0x3F));
    byte(0x80 | (c & 0x3F));
  } else {
    byte(0xF0 | c >> 18);
    byte(0x80 | (c >> 12 & 0x3F));
    byte(0x80 | (c >> 6 & 0x3F));
    byte(0x80 | (c & 0x3F));
  }
}

// Takes one character off the front. A sequence that breaks off gives one U+FFFD for the bytes that
// belonged together (Unicode 15, 3.9, "maximal subpart").
char32_t TakeUtf8(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text.front());
  text.remove_prefix(1);
  if (lead < 0x80) {
    return lead;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return kReplacement;
  }
  const int following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
  char32_t c = lead & (0x3Fu >> following);
  // The first byte behind the lead excludes overlong forms, surrogates and what lies beyond.
  unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  for (int i = 0; i < following; ++i) {
    const unsigned next = text.empty() ? 0 : static_cast<unsigned char>(text.front());
    if (next < low || next > high) {
      return kReplacement;
    }
    text.remove_prefix(1);
    c = c << 6 | (next & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return c;
}

}  // namespace

std::string Utf8FromWide(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (const wchar_t c : text) {
    AppendUtf8(out, CharacterOf(c));
  }
  return out;
}

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  while (!text.empty()) {
    out.push_back(static_cast<wchar_t>(TakeUtf8(text)));
  }
  return out;
}

std::string_view CutUtf8(std::string_view text, std::size_t longest) {
  std::size_t end = std::min(longest, text.size());
  if (end < text.size()) {
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
      --end;
    }
  }
  return text.substr(0, end);
}

bool StoreUtf16(std::wstring_view text, std::span<std::uint8_t> field) {
  const std::size_t units = field.size() / 2;
  if (units == 0) {
    return text.empty();
  }
  std::size_t used = 0;
  const auto put = [&](char32_t unit) {
    field[2 * used] = static_cast<std::uint8_t>(unit);
    field[2 * used + 1] = static_cast<std::uint8_t>(unit >> 8);
    ++used;
  };
  bool whole = true;
  for (const wchar_t wide : text.substr(0, text.find(L'\0'))) {
    const char32_t c = CharacterOf(wide);
    const std::size_t needed = c > 0xFFFF ? 2 : 1;
    if (used + needed >= units) {  // the last unit is the terminator's
      whole = false;
      break;
    }
    if (needed == 1) {
      put(c);
    } else {
      put(0xD800 | (c - 0x10000) >> 10);
      put(0xDC00 | ((c - 0x10000) & 0x3FF));
    }
  }
  std::fill(field.begin() + static_cast<std::ptrdiff_t>(2 * used), field.end(), std::uint8_t{0});
  return whole;
}

std::size_t Utf16Length(std::wstring_view text) {
  return text.size() +
         static_cast<std::size_t>(std::count_if(text.begin(), text.end(),
                                                [](wchar_t c) { return CharacterOf(c) > 0xFFFF; }));
}

std::wstring LoadUtf16(std::span<const std::uint8_t> field) {
  const std::size_t units = field.size() / 2;
  const auto unit = [&](std::size_t i) -> char32_t {
    return i < units ? field[2 * i] | char32_t{field[2 * i + 1]} << 8 : 0;
  };
  std::wstring out;
  for (std::size_t i = 0; i < units && unit(i) != 0; ++i) {
    char32_t c = unit(i);
    if (IsSurrogate(c)) {
      const char32_t low = unit(i + 1);
      if (c < 0xDC00 && low >= 0xDC00 && low <= 0xDFFF) {
        c = 0x10000 + ((c & 0x3FF) << 10 | (low & 0x3FF));
        ++i;
      } else {
        c = kReplacement;
      }
    }
    out.push_back(static_cast<wchar_t>(c));
  }
  return out;
}

}  // namespace cms
