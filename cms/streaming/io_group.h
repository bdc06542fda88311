// Group keys that mean something to the streaming clients.
#pragma once

namespace cms {

// The library chooses the I/O threads, filling each pair up to its 64 sockets.
inline constexpr int kAutomaticGroup = -2;

}  // namespace cms
