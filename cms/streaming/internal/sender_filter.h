// Datagrams of strangers are refused by the system before anybody is woken for them.
#pragma once

#include <span>

#include "cms/runtime/ip_address.h"

namespace cms {

// From now on the UDP socket takes datagrams of these addresses (at most eight, all of the socket's
// version) only, of any port. False when the system cannot do that; the socket then takes all as
// before.
bool TakeDatagramsOnlyFrom(int socket, std::span<const IpAddress> addresses);

}  // namespace cms
