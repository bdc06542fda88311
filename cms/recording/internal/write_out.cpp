#include "cms/recording/internal/write_out.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace cms {
namespace {

constexpr int kHighestPriority = -20;

// How long "try again" is believed.
constexpr int kAttempts = 500;
constexpr std::chrono::milliseconds kBetweenAttempts{10};

}  // namespace

int WriteOut(FileIo& io, int handle, const std::uint8_t* data, std::uint32_t length,
             std::uint32_t& written) {
  int attempts = 0;
  for (std::uint32_t at = 0; at < length;) {
    const ssize_t count = io.Write(handle, data + at, length - at);
    if (count > 0) {
      at += static_cast<std::uint32_t>(count);
      written += static_cast<std::uint32_t>(count);
      attempts = 0;
      continue;
    }
    const int error = count == 0 ? ENOSPC : errno;
    if ((error != EINTR && error != EAGAIN) || ++attempts == kAttempts) {
      return error;
    }
    if (error == EAGAIN) {
      std::this_thread::sleep_for(kBetweenAttempts);
    }
  }
  return 0;
}

void PreferThisThread() {
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kHighestPriority);
}

}  // namespace cms
