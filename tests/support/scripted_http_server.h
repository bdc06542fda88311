// An HTTP server inside the test program that answers with the very bytes a test gives it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test {

struct HttpRequestText {
  std::string head;  // request line and headers
  std::string body;

  std::string Target() const;  // of the request line
  std::string Header(std::string_view name) const;
};

// Listens on 127.0.0.1 from construction on, one connection after the other.
class ScriptedHttpServer {
 public:
  // The raw answer; called on the server's thread. After it the connection is closed.
  using Handler = std::function<std::string(const HttpRequestText&)>;

  explicit ScriptedHttpServer(Handler handler);
  ~ScriptedHttpServer();
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  std::uint16_t Port() const { return port_; }
  std::vector<HttpRequestText> Requests() const;

  // From now on answers are followed by this block until the client closes, or, with an empty
  // block, by silence.
  void KeepOpen(std::string block, std::chrono::milliseconds pause = {});

  // "HTTP/1.1 200 OK" with this body.
  static std::string Ok(std::string_view body);

 private:
  void Serve();
  void ServeConnection(int connection);

  const Handler handler_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  std::vector<HttpRequestText> requests_;
  bool keepOpen_ = false;
  std::string block_;
  std::chrono::milliseconds pause_{};
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace test
