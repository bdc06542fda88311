// The messages of WS-Discovery (2005/04) that find ONVIF devices.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/discovered_device.h"

namespace cms {

inline constexpr const char* kDiscoveryGroup = "239.255.255.250";
inline constexpr std::uint16_t kDiscoveryPort = 3702;

// The identifier of a probe that is sent at a time of seconds since 1970-01-01 UTC.
std::string ProbeMessageId(std::int64_t seconds, std::string_view end);

// A probe for whatever there is, of at most 1024 bytes.
std::string ProbeMessage(std::string_view messageId);

// The matches of one answer, of which some devices send several; the answer itself when it has
// none.
std::vector<std::string_view> SplitProbeMatches(std::string_view answer);

// The device of a ProbeMatch. Nothing when the answer is none, comes from a desktop computer, or
// names no IPv4 address that can be reached from elsewhere. One of HTTPS counts where it is asked
// for and there is none of HTTP.
std::optional<stDiscoveredDevice> ParseProbeMatch(std::string_view answer, bool tlsToo);

}  // namespace cms
