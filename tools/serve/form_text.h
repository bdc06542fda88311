// What browsers send beside a request's line: cookies, and the fields of a form.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tools {

// The part behind "name=" of the first such item between separators, as it stands there.
std::optional<std::string_view> ItemOf(std::string_view text, char separator,
                                       std::string_view name);

// The value of a cookie in a Cookie header (RFC 6265, 5.4); the first of that name.
std::optional<std::string_view> CookieOf(std::string_view header, std::string_view name);

// The value of a field of an application/x-www-form-urlencoded text, decoded; the first of that
// name. Nothing when it is missing or wrongly encoded.
std::optional<std::string> FieldOf(std::string_view form, std::string_view name);

}  // namespace tools
