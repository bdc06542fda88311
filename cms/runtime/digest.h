// MD5, SHA-256 and Base64.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// MD5 (RFC 1321) as 32 lower-case hexadecimal characters; empty when the crypto library refuses it.
CMS_API std::string Md5Hex(std::string_view input);
// SHA-256 (FIPS 180-4) in the same way, as 64 characters.
CMS_API std::string Sha256Hex(std::string_view input);

// Whether two texts are equal, in a time that depends on their lengths alone.
CMS_API bool EqualInConstantTime(std::string_view a, std::string_view b);

// Standard Base64 (RFC 4648, section 4), filled up with "=" to a multiple of four.
CMS_API std::string Base64(std::span<const std::uint8_t> input);
CMS_API std::string Base64(std::string_view input);

}  // namespace cms
