// The payload of one RTP packet (RFC 3550, section 5.1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace cms {

// The payload of an RTP packet: behind the header, its CSRCs and its extension, without padding.
// nullopt when the packet is not version 2 or its lengths do not fit into it.
std::optional<std::span<const std::uint8_t>> RTPPayload(std::span<const std::uint8_t> packet);

}  // namespace cms
