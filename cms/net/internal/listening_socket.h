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

// What accept's failure means for the loop around it.
enum class AcceptFailure {
  kTryAgain,   // nothing to accept, or a connection that is gone already
  kExhausted,  // no descriptors or memory now: the connection stays in the backlog
  kClosed      // the socket does not listen any more
};
AcceptFailure WhyAcceptFailed(int error);

}  // namespace cms
