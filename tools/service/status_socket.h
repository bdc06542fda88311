// Where a running recorder answers questions about itself: the Unix socket DIR/recorder.sock, for
// its user and group. A client sends one line, "status" or "metrics", and reads the answer up to
// the end of the connection: a JSON object, or text for Prometheus.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/service/recorder_figures.h"

namespace tools {

inline constexpr char kStatusSocketName[] = "recorder.sock";

// A thread of its own, which sleeps while nobody asks. A client has kClientMs for its question and
// as long for the answer, and what is no question is answered with a line that says so; more than
// kMostClients wait for a place.
class StatusSocket {
 public:
  static constexpr int kClientMs = 2'000;
  static constexpr std::size_t kMostClients = 32;

  // On the socket's thread. It may throw; the client is then told what.
  using Source = std::function<RecorderFigures()>;

  // Throws std::runtime_error when the socket cannot be made, or another recorder answers there.
  StatusSocket(const std::string& folder, Source source);
  ~StatusSocket();  // removes the socket; waits for a running question of the source
  StatusSocket(const StatusSocket&) = delete;
  StatusSocket& operator=(const StatusSocket&) = delete;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

// Asks the recorder of a folder; throws std::runtime_error when none answers within `limitMs`.
std::string AskRecorder(const std::string& folder, const std::string& question, int limitMs);

}  // namespace tools
