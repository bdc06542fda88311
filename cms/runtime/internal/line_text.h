// What log lines are made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace cms {

// "2026-11-21T10:56:01.123Z" of milliseconds since 1970-01-01 UTC, always kTimeTextLength long.
inline constexpr std::size_t kTimeTextLength = 24;
std::string TimeText(std::int64_t milliseconds);
std::string TimeTextOfNow();

// The text as one line that does nothing to a terminal: control characters become "\n", "\t" and
// the like, "\x1b" where they have no name. At most `longest` bytes, cut in front of a character.
std::string OneLine(std::string_view text, std::size_t longest);

}  // namespace cms
