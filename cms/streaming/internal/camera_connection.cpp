#include "cms/streaming/internal/camera_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cms/net/internal/socket_address.h"
#include "cms/runtime/clock.h"

namespace cms {

CameraConnection::CameraConnection(const tTcpClientParam& parameters, CancelGate& gate)
    : TCPClientBase(parameters), gate_(gate) {}

StreamFailure CameraConnection::Connect(const CameraRoute& route) {
  route_ = route;
  failure_ = {};
  started_ = OnStartTCPClient(0, route.port, static_cast<unsigned int>(route.group)) != 0;
  if (started_) {
    return {};
  }
  if (gate_.IsShut()) {
    return {ConnectionFault::kCancelled, "closed while opening"};
  }
  return failure_ ? failure_
                  : StreamFailure{ConnectionFault::kOutOfResources,
                                  "no threads or descriptors left to serve the connection"};
}

void CameraConnection::Disconnect() {
  if (started_.exchange(false)) {
    OnStopTCPClient(true);
  }
}

IpAddress CameraConnection::Local() const {
  SocketAddress local;
  return getsockname(Socket(), local.Pointer(), &local.size) == 0 ? local.Address() : IpAddress();
}

// The address that the I/O interface has room for is IPv4's alone: the route has them all. An
// address that does not answer leaves the others their share of the time.
int CameraConnection::OnConnect(unsigned long, unsigned long port) {
  const std::uint64_t end =
      TickMilliseconds() + static_cast<std::uint64_t>(std::max(route_.connectTimeoutMs, 0));
  const auto left = [end] {
    const std::uint64_t now = TickMilliseconds();
    return now < end ? static_cast<int>(end - now) : 0;
  };
  for (std::size_t i = 0; i < route_.addresses.size() && !gate_.IsShut(); ++i) {
    peer_ = route_.addresses[i];
    const int share = left() / static_cast<int>(route_.addresses.size() - i);
    if (ConnectSocket(peer_, port, share, &gate_.Signal()) == 0) {
      const int error = LastSocketError();
      const bool resources = error == EMFILE || error == ENFILE || error == ENOMEM;
      failure_ = {resources ? ConnectionFault::kOutOfResources : ConnectionFault::kUnreachable,
                  std::string("cannot connect: ") + std::strerror(error)};
      continue;
    }
    if (!route_.tls) {
      return 1;
    }
    const TlsResult result = SecureSocket(*route_.tls, left(), &gate_.Signal());
    if (result.outcome == TlsResult::Outcome::kSecured) {
      return 1;
    }
    CloseSocket();
    failure_ = FailureOf(result);
    if (result.outcome == TlsResult::Outcome::kRefused) {
      break;  // it was the camera that answered, or who pretends to be
    }
  }
  return 0;
}

StreamFailure CameraConnection::FailureOf(const TlsResult& result) const {
  using Outcome = TlsResult::Outcome;
  switch (result.outcome) {
    case Outcome::kSecured:
      return {};
    case Outcome::kTimeout:
      return {ConnectionFault::kNoAnswer, "no TLS handshake within " +
                                              std::to_string(route_.connectTimeoutMs / 1000) +
                                              " s: is this the port for rtsps?"};
    case Outcome::kCancelled:
      return {ConnectionFault::kCancelled, "closed while opening"};
    case Outcome::kFailed:
      return {ConnectionFault::kBadAnswer,
              "no TLS: " + result.text + ": is this the port for rtsps?"};
    case Outcome::kRefused:
      break;
  }
  const bool pinned = route_.tls->check == CertificateCheck::kPinned;
  return {ConnectionFault::kCertificateRefused,
          "the camera's certificate is refused: " + result.text + ". Its SHA-256 fingerprint is " +
              result.fingerprint +
              (pinned ? ": if the camera was given a new certificate, configure that one"
                      : ": compare it with the camera's own, then configure it (--fingerprint), "
                        "or have no certificate checked (--insecure)")};
}

}  // namespace cms
