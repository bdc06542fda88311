#include "tools/service/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace tools {
namespace {

std::optional<std::chrono::microseconds> WatchdogOfEnvironment() {
  const char* const interval = std::getenv("WATCHDOG_USEC");
  const char* const process = std::getenv("WATCHDOG_PID");
  if (interval == nullptr || (process != nullptr && std::atol(process) != getpid())) {
    return std::nullopt;
  }
  const std::int64_t microseconds = std::atoll(interval);
  return microseconds > 0 ? std::optional(std::chrono::microseconds(microseconds)) : std::nullopt;
}

}  // namespace

ServiceManager::ServiceManager() : watchdog_(WatchdogOfEnvironment()) {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  if (path != nullptr && (path[0] == '/' || path[0] == '@') &&
      std::strlen(path) < sizeof(sockaddr_un::sun_path)) {
    path_ = path;
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  }
}

ServiceManager::~ServiceManager() {
  if (socket_ >= 0) {
    close(socket_);
  }
}

// See sd_notify(3): lines NAME=VALUE in a datagram.
void ServiceManager::Tell(const std::string& state) const {
  if (socket_ < 0) {
    return;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, path_.size());
  if (path_.front() == '@') {
    address.sun_path[0] = '\0';
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_.size());
  sendto(socket_, state.data(), state.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), length);
}

void ServiceManager::Ready(const std::string& status) {
  Tell("READY=1\nSTATUS=" + status);
}

void ServiceManager::Reloading() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t microseconds = std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
  Tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds));
}

void ServiceManager::Stopping() {
  Tell("STOPPING=1");
}

void ServiceManager::StillThere() {
  if (watchdog_) {
    Tell("WATCHDOG=1");
  }
}

}  // namespace tools
