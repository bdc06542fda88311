// ManualTCPClient, a TCP connection whose owner sends and receives synchronously.
#pragma once

#include <memory>

#include "cms/net/tcp_client.h"

// Never served by I/O threads: every operation works on the blocking socket itself. One thread at a
// time, except that one may send while another receives, and that any thread may stop it: that ends
// the calls in progress, as does destruction.
class CMS_API ManualTCPClient : protected TCPClientBase {
 public:
  ManualTCPClient();
  explicit ManualTCPClient(tTcpClientParam param);
  ~ManualTCPClient() override;

  // As the base, but the socket stays blocking.
  int OnConnect(unsigned long address, unsigned long port) override;
  // OnConnect; the group is ignored.
  int OnStartTCPClient(unsigned long address, unsigned long port, unsigned int group) override;
  // Ends calls that other threads are in (they fail, or receive 0) and waits for them, then closes
  // the socket if there is one. Always 1.
  int OnStopTCPClient(bool closeSocket) override;
  // Sends everything: 0, or -1 on an error.
  int OnSend(char* data, int length) override;
  // One receive call: the bytes received, 0 when the peer closed, -1 on an error.
  int OnRecv(char* buffer, int size) override;

  using TCPClientBase::IsConnecting;
  using TCPClientBase::LastSocketError;

 private:
  class Call;
  struct Calls;
  void EndCalls();

  const std::unique_ptr<Calls> calls_;
};
