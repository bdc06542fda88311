#include "fleet/latest_file.h"

#include <poll.h>
#include <pthread.h>

#include <utility>

#include "cms/runtime/log.h"
#include "fleet/whole_file.h"

namespace cms::fleet {
namespace {

constexpr int kWriteAgain = 1'000;  // milliseconds

}  // namespace

LatestFile::LatestFile(std::string path) : path_(std::move(path)) {
  thread_ = std::thread([this] { Run(); });
}

LatestFile::~LatestFile() {
  {
    const ScopeLock lock(lock_);
    ends_ = true;
  }
  wake_.Signal();
  thread_.join();
}

void LatestFile::Set(std::string text) {
  {
    const ScopeLock lock(lock_);
    next_ = std::move(text);
  }
  wake_.Signal();
}

void LatestFile::Run() {
  pthread_setname_np(pthread_self(), "fleet-memory");
  bool isTold = false;
  for (bool ends = false; !ends;) {
    std::optional<std::string> text;
    {
      const ScopeLock lock(lock_);
      text = std::exchange(next_, std::nullopt);
      ends = ends_;
    }
    const bool failed = text && !WriteWholeFile(path_, *text);
    const int milliseconds = failed ? kWriteAgain : text ? 0 : -1;
    if (failed) {
      if (!std::exchange(isTold, true)) {
        Log(LogLevel::kError, "fleet",
            path_ +
                " cannot be written: trying again; until then a restart without the engine "
                "does not know the newest cameras");
      }
      const ScopeLock lock(lock_);
      if (!next_) {
        next_ = std::move(text);
      }
    } else if (text) {
      isTold = false;
    }
    if (!ends) {
      pollfd wait{wake_.Descriptor(), POLLIN, 0};
      poll(&wait, 1, milliseconds);
      wake_.Clear();
    }
  }
}

}  // namespace cms::fleet
