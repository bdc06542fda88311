// Datagrams of strangers are refused by the system before anybody is woken for them.
#pragma once

#include <cstdint>
#include <span>

namespace cms {

// From now on the UDP socket takes datagrams of these IPv4 addresses (host order, at most eight)
// only, of any port. False when the system cannot do that; the socket then takes all as before.
bool TakeDatagramsOnlyFrom(int socket, std::span<const std::uint32_t> addresses);

}  // namespace cms
