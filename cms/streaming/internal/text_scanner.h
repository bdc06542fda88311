// TextScanner reads the fixed patterns of session descriptions and header lines.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <system_error>

namespace cms {

inline bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
inline bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
inline char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
inline char UpperCase(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

inline bool EqualAnyCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (LowerCase(a[i]) != LowerCase(b[i])) return false;
  }
  return true;
}

inline std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Reads one line with the meaning of a scan pattern: a blank stands for any run of white space,
// including none; numbers and words skip leading white space. It never reads past the view, takes
// no notice of the process's locale, and stays failed after the first item that did not match.
class TextScanner {
 public:
  explicit TextScanner(std::string_view text) : rest_(text) {}

  // The literal; a blank inside it stands for any run of white space.
  TextScanner& Literal(std::string_view literal) {
    for (const char c : literal) {
      if (c == ' ') {
        SkipSpace();
      } else if (matched_ && !rest_.empty() && rest_.front() == c) {
        rest_.remove_prefix(1);
      } else {
        matched_ = false;
      }
    }
    return *this;
  }

  // "%u": an optional sign and digits. What exceeds 32 bits saturates, a minus sign wraps.
  TextScanner& Unsigned(std::uint32_t& value) {
    SkipSpace();
    const bool negative = !rest_.empty() && rest_.front() == '-';
    if (!rest_.empty() && (rest_.front() == '-' || rest_.front() == '+')) rest_.remove_prefix(1);
    if (rest_.empty() || !IsDigit(rest_.front())) matched_ = false;
    if (!matched_) return *this;
    std::uint64_t sum = 0;
    constexpr std::uint64_t kMax = std::numeric_limits<std::uint32_t>::max();
    while (!rest_.empty() && IsDigit(rest_.front())) {
      sum = sum * 10 + static_cast<std::uint64_t>(rest_.front() - '0');
      if (sum > kMax) sum = kMax;
      rest_.remove_prefix(1);
    }
    value = static_cast<std::uint32_t>(negative ? 0 - sum : sum);
    return *this;
  }

  // "%lg", finite values only.
  TextScanner& Number(double& value) {
    SkipSpace();
    if (!rest_.empty() && rest_.front() == '+') rest_.remove_prefix(1);
    double parsed = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), parsed);
    if (error != std::errc() || !std::isfinite(parsed)) matched_ = false;
    if (!matched_) return *this;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    value = parsed;
    return *this;
  }

  // "%s" with a width: a word that is not empty, cut at the width.
  TextScanner& Word(std::string_view& value, std::size_t width) {
    SkipSpace();
    std::size_t size = 0;
    while (size < rest_.size() && size < width && !IsSpace(rest_[size])) ++size;
    return Take(value, size);
  }

  // "%[^...]" with a width: one or more characters that are none of `stops`.
  TextScanner& Until(std::string_view& value, std::string_view stops, std::size_t width) {
    const std::size_t size = rest_.substr(0, width).find_first_of(stops);
    return Take(value, size == std::string_view::npos ? std::min(width, rest_.size()) : size);
  }

  bool Matched() const { return matched_; }
  std::string_view Rest() const { return rest_; }

 private:
  void SkipSpace() {
    while (!rest_.empty() && IsSpace(rest_.front())) rest_.remove_prefix(1);
  }
  TextScanner& Take(std::string_view& value, std::size_t size) {
    if (size == 0) matched_ = false;
    if (!matched_) return *this;
    value = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return *this;
  }

  std::string_view rest_;
  bool matched_ = true;
};

// Takes the next line off `text`. A line ends at the next line feed, or, when none is left, at the
// next carriage return, or at the end of the text. The line carries no trailing carriage return.
// False when nothing is left.
inline bool TakeLine(std::string_view& text, std::string_view& line) {
  if (text.empty()) return false;
  std::size_t end = text.find('\n');
  if (end == std::string_view::npos) end = text.find('\r');
  line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return true;
}

}  // namespace cms
