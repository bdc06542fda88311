// What the program that started the service, systemd for one, is told of it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tools {

// Speaks to the socket of $NOTIFY_SOCKET; without one nobody listens and nothing happens. Waits for
// nobody. Any thread.
class ServiceManager {
 public:
  ServiceManager();
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  void Ready(const std::string& status);  // also after Reloading
  void Reloading();
  void Stopping();
  void StillThere();  // owed twice in WatchdogInterval

  // Within which it wants to hear of the service; nothing when it does not care.
  std::optional<std::chrono::microseconds> WatchdogInterval() const { return watchdog_; }

 private:
  void Tell(const std::string& state) const;

  int socket_ = -1;
  std::string path_;
  std::optional<std::chrono::microseconds> watchdog_;
};

}  // namespace tools
