// What the HTTP server takes from the text of a request.
#pragma once

#include <string>
#include <string_view>

namespace cms {

// All that the one read of a request may be.
inline constexpr std::size_t kMaxRequestText = 2048;

struct ParsedRequest {
  std::string method;         // may be empty
  std::string target;         // as asked for
  std::string command;        // the target without its query
  std::string query;          // without the "?"
  std::string userName;       // the first quoted "username", wherever it stands
  std::string authorization;  // the Authorization header's value without the scheme
  bool clientIsIe = false;
};

// False when this is no request: no "HTTP/1.1" or "HTTP/1.0" in it, or no end of a method.
//
// The target is not looked for in the first line alone but in the whole text, or, for requests that
// name an old Internet Explorer, in the text in front of that name. So a "?" in any header
// there makes the command run up to it: pages that this server gives out should tell browsers to
// send no Referer.
//
// With `firstLineOnly` it is looked for in the first line alone.
bool ParseRequest(std::string_view text, ParsedRequest& parsed, bool firstLineOnly = false);

// An Authorization header's value behind its first word, which names the scheme.
std::string_view WithoutScheme(std::string_view value);
// A target behind the "http://host:port" that it may begin with.
std::string_view WithoutOrigin(std::string_view target);

}  // namespace cms
