#include "cms/httpserver/internal/request_parser.h"

#include <algorithm>

#include "cms/runtime/text.h"

namespace cms {
namespace {

constexpr auto kNone = std::string_view::npos;
constexpr std::string_view kBlanks = " \t";

}  // namespace

std::string_view WithoutScheme(std::string_view value) {
  value.remove_prefix(std::min(value.find_first_not_of(kBlanks), value.size()));
  value.remove_prefix(std::min(value.find_first_of(kBlanks), value.size()));
  value.remove_prefix(std::min(value.find_first_not_of(kBlanks), value.size()));
  return value;
}

std::string_view WithoutOrigin(std::string_view target) {
  const auto host = target.find("://");
  if (target.starts_with('/') || host == kNone) {
    return target;
  }
  return target.substr(std::min(target.find('/', host + 3), target.size()));
}

bool ParseRequest(std::string_view text, ParsedRequest& parsed, bool firstLineOnly) {
  parsed = {};
  if (text.find("HTTP/1.1") == kNone && text.find("HTTP/1.0") == kNone) {
    return false;
  }
  auto marker = text.find("MSIE");
  if (marker == kNone) {
    marker = text.find("Trident");
  }
  parsed.clientIsIe = marker != kNone;
  std::string_view head = text.substr(0, marker);
  if (firstLineOnly) {
    head = head.substr(0, head.find_first_of("\r\n"));
  }

  const auto methodEnd = head.find_first_of(" /");
  if (methodEnd == kNone) {
    return false;
  }
  parsed.method = head.substr(0, methodEnd);
  StrInBrace(head, parsed.method, ' ', ' ', parsed.target);
  if (head.find('?') != kNone) {
    StrInBrace(head, parsed.method, ' ', '?', parsed.command);
    StrInBrace(head, parsed.command, '?', ' ', parsed.query);
  } else {
    parsed.command = parsed.target;
  }
  StrInBrace(text, "username", '"', '"', parsed.userName);
  std::string authorization;
  StrInBrace(text, "Authorization", ':', '\r', authorization);
  parsed.authorization = WithoutScheme(authorization);
  return true;
}

}  // namespace cms
