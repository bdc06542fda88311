#include "cms/runtime/clock.h"

#include <atomic>
#include <ctime>

namespace cms {
namespace {

class SystemClock final : public Clock {
 public:
  std::uint64_t TickMilliseconds() const override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
  }
  std::int64_t WallSeconds() const override { return std::time(nullptr); }
};

std::atomic<const Clock*> replacement{nullptr};

}  // namespace

const Clock& CurrentClock() {
  static const auto* const system =
      new SystemClock;  // threads may still ask while the process ends
  const Clock* const given = replacement.load(std::memory_order_acquire);
  return given != nullptr ? *given : *system;
}

void ReplaceClock(const Clock* clock) {
  replacement.store(clock, std::memory_order_release);
}

}  // namespace cms
