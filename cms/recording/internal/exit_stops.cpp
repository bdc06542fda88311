#include "cms/recording/internal/exit_stops.h"

#include <cstdlib>
#include <utility>

#include "cms/recording/internal/recording_disk.h"

namespace cms {
namespace {

constexpr int kWriteOutMilliseconds = 10'000;

}  // namespace

ExitStops& ExitStops::Instance() {
  // Never destroyed: recorders may be.
  static ExitStops* const stops = [] {
    auto* made = new ExitStops;
    std::atexit([] { Instance().StopAll(); });
    return made;
  }();
  return *stops;
}

void ExitStops::Add(const void* owner, std::function<void()> stop) {
  const ScopeLock hold(lock_);
  stops_[owner] = std::move(stop);
}

void ExitStops::Remove(const void* owner) {
  const ScopeLock hold(lock_);
  stops_.erase(owner);
}

void ExitStops::StopAll() {
  {
    const ScopeLock hold(lock_);
    for (const auto& [owner, stop] : stops_) {
      stop();
    }
  }
  RecordingDisk::WaitAll(kWriteOutMilliseconds, true);
}

}  // namespace cms
