#include "cms/runtime/internal/line_text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "cms/runtime/wide_text.h"

namespace cms {

std::string TimeText(std::int64_t milliseconds) {
  constexpr std::int64_t kYear10000 = 253'402'300'800'000;
  milliseconds = std::clamp<std::int64_t>(milliseconds, 0, kYear10000 - 1);
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, static_cast<int>(milliseconds % 1000));
  return text.data();
}

std::string TimeTextOfNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return TimeText(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::string OneLine(std::string_view text, std::size_t longest) {
  std::string line;
  line.reserve(std::min(text.size() + text.size() / 8, longest + 4));
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (code >= 0x20 && code != 0x7F) {
      line.push_back(c);
    } else if (c == '\n' || c == '\r' || c == '\t') {
      line += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
    } else {
      static constexpr char kDigits[] = "0123456789abcdef";
      line += {'\\', 'x', kDigits[code >> 4], kDigits[code & 15]};
    }
    if (line.size() > longest) {
      break;
    }
  }
  line.resize(CutUtf8(line, longest).size());
  return line;
}

}  // namespace cms
