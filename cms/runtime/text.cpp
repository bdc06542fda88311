#include "cms/runtime/text.h"

#include <algorithm>
#include <limits>
#include <type_traits>
#include <utility>

namespace cms {
namespace {

template <class Char>
using View = std::basic_string_view<Char>;

// Results are int; what lies beyond their range is not looked at.
template <class Char>
View<Char> WithinInt(View<Char> text) {
  return text.substr(0, std::numeric_limits<int>::max());
}

// The result may be the text itself, so it changes last.
template <class Char>
int InBrace(View<Char> text, View<Char> key, Char open, Char close,
            std::basic_string<Char>& value) {
  text = WithinInt(text);
  const auto found = text.find(key);
  const auto begin = found != text.npos ? text.find(open, found) : text.npos;
  const auto end = begin != text.npos ? text.find(close, begin + 1) : text.npos;
  if (end == text.npos || end == begin + 1) {
    value.clear();
    return -1;
  }
  value.assign(text.data() + begin + 1, end - begin - 1);
  return static_cast<int>(end) - 1;
}

template <class Char>
int AllInBrace(View<Char> text, View<Char> key, Char open, Char close,
               std::vector<std::basic_string<Char>>& values) {
  std::vector<std::basic_string<Char>> found;
  for (;;) {
    const auto at = text.find(key);
    const auto begin = at != text.npos ? text.find(open, at) : text.npos;
    const auto end = begin != text.npos ? text.find(close, begin + 1) : text.npos;
    if (end == text.npos) {
      break;
    }
    if (end > begin + 1) {
      found.emplace_back(text.substr(begin + 1, end - begin - 1));
    }
    text.remove_prefix(end + 1);
  }
  values = std::move(found);
  return static_cast<int>(values.size());
}

template <class Char>
int LineAt(View<Char> text, std::basic_string<Char>& line, int start) {
  text = WithinInt(text);
  const auto begin = start < 0 ? text.size() : static_cast<std::size_t>(start);
  auto end = text.find(Char{'\n'}, begin);
  if (end == text.npos) {
    end = text.find(Char{'\r'}, begin);
  }
  if (end == text.npos) {
    line.clear();
    return -1;
  }
  line.assign(text.data() + begin, end - begin);
  return static_cast<int>(end) + 1;
}

template <class Char>
auto Lower(Char c) {
  const auto code = static_cast<std::make_unsigned_t<Char>>(c);  // NOLINT(*signed-char-misuse)
  return code >= 'A' && code <= 'Z' ? static_cast<decltype(code)>(code - 'A' + 'a') : code;
}

template <class Char>
int Compare(View<Char> a, View<Char> b) {
  const auto length = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < length; ++i) {
    const auto left = Lower(a[i]);
    const auto right = Lower(b[i]);
    if (left != right) {
      return left < right ? -1 : 1;
    }
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

}  // namespace

int StrInBrace(std::string_view text, std::string_view key, char open, char close,
               std::string& value) {
  return InBrace(text, key, open, close, value);
}

int StrInBrace(std::wstring_view text, std::wstring_view key, wchar_t open, wchar_t close,
               std::wstring& value) {
  return InBrace(text, key, open, close, value);
}

int StrsInBrace(std::string_view text, std::string_view key, char open, char close,
                std::vector<std::string>& values) {
  return AllInBrace(text, key, open, close, values);
}

int StrsInBrace(std::wstring_view text, std::wstring_view key, wchar_t open, wchar_t close,
                std::vector<std::wstring>& values) {
  return AllInBrace(text, key, open, close, values);
}

int GetLine(std::string_view text, std::string& line, int start) {
  return LineAt(text, line, start);
}

int GetLine(std::wstring_view text, std::wstring& line, int start) {
  return LineAt(text, line, start);
}

int CompareAnyCase(std::string_view a, std::string_view b) {
  return Compare(a, b);
}

int CompareAnyCase(std::wstring_view a, std::wstring_view b) {
  return Compare(a, b);
}

}  // namespace cms
