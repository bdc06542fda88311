// CTcpReceiver, the receiving side of one connection of the TCP server.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "cms/net/tcp_server.h"

// A thread that hands received bytes to the server's callback, or throws them away where there is
// none, and notices the peer's end.
class CTcpReceiver {
 public:
  // Neither descriptor is owned; `stop` becomes readable when the server stops.
  CTcpReceiver(int descriptor, int stop, const tTcpServerConfig& config);
  ~CTcpReceiver() { Stop(); }
  CTcpReceiver(const CTcpReceiver&) = delete;
  CTcpReceiver& operator=(const CTcpReceiver&) = delete;

  // `on_gone` runs on the thread, as its last step, unless the thread was stopped.
  bool Start(std::function<void()> on_gone);
  // Waits for the thread, whose socket is shut down or whose server is stopping.
  void Stop();

 private:
  void Run();

  const int socket_;
  const int stop_;
  const tTcpServerConfig& config_;
  std::atomic<bool> running_{false};
  std::function<void()> onGone_;
  std::vector<char> scratch_;
  std::thread thread_;
};
