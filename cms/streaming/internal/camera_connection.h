// CameraConnection: a TCP connection to a camera, by the first of its addresses that answers.
#pragma once

#include <atomic>

#include "cms/net/tcp_client.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/camera_route.h"
#include "cms/streaming/internal/stream_failure.h"

namespace cms {

// Owner's calls come one at a time. What shuts the gate ends the wait.
class CameraConnection : public TCPClientBase {
 public:
  CameraConnection(const tTcpClientParam& parameters, CancelGate& gate);

  // Connects, shakes hands where TLS is asked for, and registers with the I/O threads.
  StreamFailure Connect(const CameraRoute& route);
  void Disconnect();  // no byte and no event comes after it

  const IpAddress& Peer() const { return peer_; }  // the address that answered
  IpAddress Local() const;                         // this end's, of the open connection

  int OnConnect(unsigned long address, unsigned long port) override;

 private:
  StreamFailure FailureOf(const TlsResult& result) const;

  CancelGate& gate_;
  CameraRoute route_;
  IpAddress peer_;
  StreamFailure failure_;  // why no address did
  std::atomic<bool> started_{false};
};

}  // namespace cms
