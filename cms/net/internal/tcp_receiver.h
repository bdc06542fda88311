// CTcpReceiver, the receiving side of one connection of the TCP server.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "cms/live/frame_buffer.h"
#include "cms/net/tcp_server.h"

// A thread that hands received bytes to the server's callback, or queues them as frames.
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
  void Deliver(int length);

  const int socket_;
  const int stop_;
  const tTcpServerConfig& config_;
  std::atomic<bool> running_{false};
  std::function<void()> on_gone_;
  std::vector<char> scratch_;
  CFrameBuffer frames_;  // allocated by the first frame that nobody is called for
  bool has_frames_ = false;
  std::thread thread_;
};
