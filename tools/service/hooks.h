// Hooks: whom a running recorder tells of events and faults: a command, a web address or an MQTT
// broker, each as its configuration says.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/service/hook_event.h"
#include "tools/service/recorder_figures.h"

namespace tools {

struct HookConfig {
  enum class Kind { kCommand, kPost, kMqtt };

  std::string name;  // for people: in figures and the log
  Kind kind = Kind::kCommand;
  std::vector<HookEventKind> events;  // that are told; empty: all
  unsigned timeoutSeconds = 10;       // for one attempt, 1 to 600

  std::vector<std::string> command;  // the program with its arguments: no shell reads them

  std::string url;       // of an HTTP POST, http:// or https://
  std::string user;      // of the web server or the broker; empty: no login
  std::string password;  // never shown
  std::string caFile;    // whom TLS trusts; empty: the system's authorities

  std::string host;               // of the broker
  std::uint16_t port = 0;         // 0: 1883, with TLS 8883
  bool tls = false;               // of the broker; the certificate is checked
  std::string topic = "orvanta";  // TOPIC/status "online" or "offline", TOPIC/events/NAME
  std::string clientId;           // empty: one of the host's and the process's

  bool operator==(const HookConfig&) const = default;
};

// Each hook has a thread and a queue of its own, so that one that hangs or is away holds up nobody:
// not the recording, and no other hook. What cannot be delivered is tried again after pauses of 1 s
// that grow to a minute, in order; the queue keeps the latest kMostWaiting events and counts those
// that it had to drop. A command that fails, and an answer that says that asking again is of no
// use, is told no second time after kMostRefusals attempts. Members may be called from any thread.
class Hooks {
 public:
  static constexpr std::size_t kMostWaiting = 256;
  static constexpr unsigned kMostRefusals = 3;
  static constexpr int kEndMs = 3'000;

  // Throws std::runtime_error where one can never work, such as a URL that is none.
  explicit Hooks(const std::vector<HookConfig>& configs);
  // Delivers what waits, at most kEndMs, and ends what does not answer then.
  ~Hooks();
  Hooks(const Hooks&) = delete;
  Hooks& operator=(const Hooks&) = delete;

  void Tell(const HookEvent& event);  // never waits
  std::vector<HookFigures> Figures() const;

 private:
  class Queue;
  std::vector<std::unique_ptr<Queue>> queues_;
};

}  // namespace tools
