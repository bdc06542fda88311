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

const SystemClock system_clock;
std::atomic<const Clock*> current_clock{&system_clock};

}  // namespace

const Clock& CurrentClock() {
  return *current_clock.load(std::memory_order_acquire);
}

void ReplaceClock(const Clock* clock) {
  current_clock.store(clock != nullptr ? clock : &system_clock, std::memory_order_release);
}

}  // namespace cms
