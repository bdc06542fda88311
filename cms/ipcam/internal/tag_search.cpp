#include "cms/ipcam/internal/tag_search.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>

#include "cms/ipcam/internal/soap_envelope.h"

namespace cms {
namespace {

std::wstring_view Trimmed(std::wstring_view text) {
  const std::size_t begin = text.find_first_not_of(kXmlSpace);
  if (begin == std::wstring_view::npos) {
    return {};
  }
  return text.substr(begin, text.find_last_not_of(kXmlSpace) + 1 - begin);
}

// Where the first start tag of this name begins; npos when there is none.
std::size_t FindStartTag(std::wstring_view text, std::wstring_view name) {
  const std::wstring start = L"<" + std::wstring(name);
  for (std::size_t at = text.find(start); at != std::wstring_view::npos;
       at = text.find(start, at + 1)) {
    const std::size_t behind = at + start.size();
    if (behind < text.size() &&
        std::wstring_view(L" \t\r\n/>").find(text[behind]) != std::wstring_view::npos) {
      return at;
    }
  }
  return std::wstring_view::npos;
}

std::wstring ClosingTag(std::wstring_view name) {
  return L"</" + std::wstring(name) + L">";
}

}  // namespace

std::optional<std::wstring_view> BetweenTags(std::wstring_view text, std::wstring_view opening,
                                             std::wstring_view closing) {
  const std::size_t found = text.find(opening);
  const std::size_t end = text.find(closing);
  if (found == std::wstring_view::npos || end == std::wstring_view::npos ||
      end < found + opening.size()) {
    return std::nullopt;
  }
  const std::size_t begin = found + opening.size();
  return text.substr(begin, end - begin);
}

std::wstring_view ElementContent(std::wstring_view text, std::wstring_view name) {
  const std::size_t start = FindStartTag(text, name);
  if (start == std::wstring_view::npos) {
    return {};
  }
  const std::size_t bracket = text.find(L'>', start);
  if (bracket == std::wstring_view::npos || text[bracket - 1] == L'/') {
    return {};
  }
  const std::wstring_view opening = text.substr(start, bracket + 1 - start);
  return BetweenTags(text, opening, ClosingTag(name)).value_or(std::wstring_view());
}

bool TakeElement(std::wstring_view& text, std::wstring_view name, std::wstring_view& element) {
  const std::size_t start = FindStartTag(text, name);
  if (start == std::wstring_view::npos) {
    return false;
  }
  const std::size_t bracket = text.find(L'>', start);
  if (bracket != std::wstring_view::npos && text[bracket - 1] == L'/') {
    element = text.substr(start, bracket - 1 - start);
    text.remove_prefix(bracket + 1);
    return true;
  }
  const std::wstring closing = ClosingTag(name);
  const std::size_t end = text.find(closing, start);
  if (end == std::wstring_view::npos) {
    return false;
  }
  element = text.substr(start, end - start);
  text.remove_prefix(end + closing.size());
  return true;
}

std::wstring AttributeOf(std::wstring_view element, std::wstring_view name) {
  const std::wstring_view tag = element.substr(0, element.find(L'>'));
  const std::wstring attribute = L" " + std::wstring(name) + L"=\"";
  const std::size_t found = tag.find(attribute);
  if (found == std::wstring_view::npos) {
    return {};
  }
  const std::wstring_view value = tag.substr(found + attribute.size());
  return XmlUnescaped(value.substr(0, value.find(L'"')));
}

std::wstring Token(std::wstring_view element) {
  return AttributeOf(element, L"token");
}

std::wstring TextOf(std::wstring_view text, std::wstring_view name) {
  return XmlUnescaped(Trimmed(ElementContent(text, name)));
}

std::vector<std::wstring> TextsOf(std::wstring_view text, std::wstring_view name) {
  std::vector<std::wstring> texts;
  for (std::wstring_view element; TakeElement(text, name, element);) {
    const std::size_t bracket = std::min(element.find(L'>'), element.size() - 1);
    if (const auto content = Trimmed(element.substr(bracket + 1)); !content.empty()) {
      texts.push_back(XmlUnescaped(content));
    }
  }
  return texts;
}

std::optional<double> NumberOf(std::wstring_view text, std::wstring_view name) {
  constexpr std::size_t kMaxDigits = 40;
  std::string narrow;
  for (const wchar_t c : Trimmed(ElementContent(text, name)).substr(0, kMaxDigits)) {
    narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  }
  double number = 0;
  const auto [end, error] = std::from_chars(narrow.data(), narrow.data() + narrow.size(), number);
  if (error != std::errc() || !std::isfinite(number)) {
    return std::nullopt;
  }
  return number;
}

int IntegerOf(std::wstring_view text, std::wstring_view name, int otherwise) {
  constexpr double kLargest = 2147483647;
  const double number = NumberOf(text, name).value_or(otherwise);
  return number >= -kLargest && number <= kLargest ? static_cast<int>(number) : otherwise;
}

bool TruthOf(std::wstring_view text, std::wstring_view name) {
  const std::wstring_view value = Trimmed(ElementContent(text, name));
  return value == L"true" || value == L"1";
}

std::optional<stRange> RangeOf(std::wstring_view text, std::wstring_view name) {
  const std::wstring_view range = ElementContent(text, name);
  const std::optional<double> min = NumberOf(range, L"tt:Min");
  const std::optional<double> max = NumberOf(range, L"tt:Max");
  if (!min || !max) {
    return std::nullopt;
  }
  return stRange{*min, *max};
}

}  // namespace cms
