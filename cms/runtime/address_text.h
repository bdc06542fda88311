// IPv4 addresses and their texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cms/runtime/api.h"

namespace cms {

// Addresses are numbers in host byte order: 192.0.2.1 is 0xC0000201.
CMS_API std::string AddressText(std::uint32_t address);

// Of four decimal numbers with dots between and nothing else.
CMS_API std::optional<std::uint32_t> AddressOf(const std::string& text);

// The subnet mask of a prefix length, 0 to 32: 24 gives 255.255.255.0.
CMS_API std::optional<std::uint32_t> SubnetMaskOf(int prefix);

}  // namespace cms
