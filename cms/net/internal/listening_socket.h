// The listening sockets of the embedded servers.
#pragma once

#include <netinet/in.h>

#include <cstdint>

namespace cms {

// A non-blocking TCP socket that listens on an address (host byte order), or on any; port 0 lets
// the system choose. -1 with errno set when that fails, as for a port in use. Connections that it
// accepts send at once, without waiting to fill a segment, and notice within two minutes of silence
// that a peer has vanished.
int OpenListeningSocket(std::uint16_t port, int backlog, std::uint32_t address = INADDR_ANY);

// Where a socket is bound; all zero when it is not.
sockaddr_in BoundAddress(int descriptor);

// The descriptor of the next connection, waited for, and its peer's address. While the process is
// out of descriptors or memory, connections stay in the backlog. -1 when the socket listens no more
// or, with nothing there to accept, `stop` is readable. Where several threads accept from one
// socket, blocking mode wakes only one of them for a connection.
int AcceptNext(int listening, int stop, sockaddr_in& peer);

}  // namespace cms
