// What a live connection is doing, and why it is not delivering.
#pragma once

#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

namespace cms {

// Why an attempt to open a stream failed, or why an open stream ended.
enum class ConnectionFault {
  kNone,
  kBadAddress,          // the URL cannot be read, or its host name does not resolve
  kUnreachable,         // the TCP connection could not be made
  kNoAnswer,            // connected, but a request was not answered in time
  kBadAnswer,           // the answer breaks the protocol
  kPasswordRefused,     // 401 or 403: credentials are missing or wrong
  kCameraFull,          // 453 or 503: the camera serves as many sessions as it can
  kNoSuchStream,        // 404: no stream at this path
  kTransportRefused,    // 461: the camera does not offer this transport
  kNoUsableVideo,       // the description has no video that the library receives
  kRefused,             // any other status of the camera's
  kClosedByCamera,      // the camera ended the connection
  kStreamDied,          // the connection stands, but no packet came for too long
  kOutOfResources,      // this host has no descriptor, port or memory left
  kDatagramsLost,       // the camera plays, and nothing of what it sends over UDP arrives
  kCertificateRefused,  // the camera's certificate is not the one that was meant
  kCancelled,           // closed by the client application while opening
  kNoFrames,            // video packets come, but no whole picture; also of a stream that plays
};

enum class ConnectionState {
  kClosed,   // nothing is open, and nothing is going to be opened
  kOpening,  // the camera is being asked
  kPlaying,  // frames are delivered as they come
  kWaiting,  // the next attempt comes by itself, see `retryInMs`
  kOpen,     // opened, and nothing is delivered: before Play or after StopPlay
  kPaused,   // the camera was asked to pause; the session is kept alive
};

struct ConnectionStatus {
  ConnectionState state = ConnectionState::kClosed;
  // Of the last failed attempt or lost stream. While a stream plays: kNoFrames as long as that is
  // so.
  ConnectionFault fault = ConnectionFault::kNone;
  std::string detail;            // one line: what failed, at which address, and what to do
  std::string sound;             // one line: why the camera's sound is left out, such as
                                 // "OPUS/48000 is not understood (PCMU ...)"; else empty
  std::uint32_t reconnects = 0;  // times that the stream came back
  std::uint64_t retryInMs = 0;   // in state kWaiting: time left until the next attempt
};

// A short English name of a state, such as "playing".
CMS_API const char* ConnectionStateName(ConnectionState state);
// A short English name of a fault, such as "password refused".
CMS_API const char* ConnectionFaultName(ConnectionFault fault);

}  // namespace cms
