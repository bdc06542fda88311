// Connecting with a limit, and with a way to end the attempt.
#pragma once

#include "cms/net/internal/socket_address.h"
#include "cms/runtime/wake_up.h"

namespace cms {

// Connects a non-blocking TCP socket within the given milliseconds (negative: the system's own
// limit). 0 when the connection stands, else its errno: ETIMEDOUT at the limit, ECANCELED once the
// signal is set.
int ConnectWithin(int descriptor, const SocketAddress& address, int milliseconds,
                  const WakeUp* cancel);

}  // namespace cms
