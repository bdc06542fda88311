// Bytes as text, as the engine's HTTP interface and stored secrets have them (RFC 4648, section 4).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace cms::fleet {

std::string ToBase64(std::string_view bytes);
std::optional<std::string> FromBase64(std::string_view text);  // nullopt: it is none

}  // namespace cms::fleet
