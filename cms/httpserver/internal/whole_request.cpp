#include "cms/httpserver/internal/whole_request.h"

#include <algorithm>

#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/runtime/text.h"

namespace cms {
namespace {

constexpr auto kNowhere = std::string_view::npos;
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kTokenMarks = "!#$%&'*+-.^_`|~";

bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kTokenMarks.find(c) != kNowhere;
  });
}

// No control characters, which no honest line has besides tabs.
bool IsPlain(std::string_view line) {
  return std::none_of(line.begin(), line.end(), [](char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f';
  });
}

std::string_view WithoutBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

// The next line, which is taken from the text.
std::string_view TakeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find(kLineEnd));
  text.remove_prefix(std::min(line.size() + kLineEnd.size(), text.size()));
  return line;
}

std::string_view TakeWord(std::string_view& line) {
  const std::string_view word = line.substr(0, line.find(' '));
  line.remove_prefix(std::min(word.size() + 1, line.size()));
  return word;
}

}  // namespace

std::size_t HeadLength(std::string_view text, std::size_t seen) {
  const auto end = text.find(kHeadEnd, seen - std::min(seen, kHeadEnd.size() - 1));
  return end == kNowhere ? 0 : end + kHeadEnd.size();
}

std::optional<std::string_view> FindHeader(std::string_view text, std::string_view name) {
  TakeLine(text);
  while (true) {
    const std::string_view line = TakeLine(text);
    if (line.empty()) {
      return std::nullopt;
    }
    const auto colon = line.find(':');
    if (colon != kNowhere && EqualAnyCase(line.substr(0, colon), name)) {
      return WithoutBlanks(line.substr(colon + 1));
    }
  }
}

bool ParseWholeRequest(std::string_view head, ParsedRequest& parsed) {
  parsed = {};
  std::string_view lines = head;
  std::string_view first = TakeLine(lines);
  const std::string_view method = TakeWord(first);
  std::string_view target = TakeWord(first);
  if (!IsToken(method) || target.empty() || !IsPlain(target) || first.size() != 8 ||
      !first.starts_with("HTTP/1.")) {
    return false;
  }
  for (std::string_view line = TakeLine(lines); !line.empty(); line = TakeLine(lines)) {
    if (!IsToken(line.substr(0, line.find(':'))) || line.find(':') == kNowhere || !IsPlain(line)) {
      return false;
    }
  }
  target = WithoutOrigin(target);
  const auto mark = target.find('?');
  parsed.method = method;
  parsed.target = target;
  parsed.command = target.substr(0, mark);
  parsed.query = mark == kNowhere ? std::string_view() : target.substr(mark + 1);
  parsed.authorization = WithoutScheme(FindHeader(head, "Authorization").value_or(""));
  parsed.userName = ParseDigestFields(parsed.authorization).userName;
  const std::string_view browser = FindHeader(head, "User-Agent").value_or("");
  parsed.clientIsIe = browser.find("MSIE") != kNowhere || browser.find("Trident") != kNowhere;
  return true;
}

}  // namespace cms
