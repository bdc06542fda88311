// Texts of the network on their way to terminals, lists and logs.
#pragma once

#include <algorithm>
#include <string>

namespace cms {

// Blanks in place of what moves a cursor, begins a control sequence (C0, C1) or turns the direction
// of writing (U+061C, U+200E/F, U+202A to E, U+2066 to 9), so that a name cannot show another text.
inline std::wstring Plain(std::wstring text) {
  std::ranges::replace_if(
      text,
      [](wchar_t c) {
        return c < L' ' || (c >= 0x7F && c <= 0x9F) || c == 0x061C || c == 0x200E || c == 0x200F ||
               (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
      },
      L' ');
  return text;
}

}  // namespace cms
