// Requests that are read up to the end of their headers, and their headers.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "cms/httpserver/internal/request_parser.h"

namespace cms {

// More than browsers send with all their cookies.
inline constexpr std::size_t kMaxWholeRequest = 65536;

// The length of a request's first line and headers with the empty line behind them; 0 while that is
// not there. `seen` bytes of the text were looked at before.
std::size_t HeadLength(std::string_view text, std::size_t seen = 0);

// The value of the first header of that name, whose case does not count, without the blanks around
// it. Of any text: what stands in front of the first line's end is no header, nor is what follows
// an empty line.
std::optional<std::string_view> FindHeader(std::string_view text, std::string_view name);

// Reads a head (HeadLength) by RFC 9112: a method, a target, HTTP/1.x, and headers with names. The
// target may name a host, which is left out. The user is the one that the Authorization header
// names, proven by nothing yet. False when this is no request.
bool ParseWholeRequest(std::string_view head, ParsedRequest& parsed);

}  // namespace cms
