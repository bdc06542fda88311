// CTcpReceiver, the receiving side of one connection of the TCP server.
#pragma once

#include <vector>

#include "cms/net/tcp_server.h"

// Hands received bytes to the server's callback, or throws them away where there is none.
class CTcpReceiver {
 public:
  // Neither descriptor is owned; `stop` becomes readable when the server stops.
  CTcpReceiver(int descriptor, int stop, const cms::tTcpServerConfig& config);

  // Receives until the peer has closed, the connection has failed or the server stops.
  void Run();

 private:
  const int socket_;
  const int stop_;
  const cms::tTcpServerConfig& config_;
  std::vector<char> scratch_;
};
