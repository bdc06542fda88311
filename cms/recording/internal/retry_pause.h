// RetryPause, how long what failed is left alone.
#pragma once

#include <algorithm>
#include <cstdint>

namespace cms {

// A second at first; each further failure within a minute of the one before it doubles the pause,
// up to half a minute. Times are ticks (cms::TickMilliseconds). Not for concurrent use.
class RetryPause {
 public:
  static constexpr std::uint64_t kFirstMilliseconds = 1000;
  static constexpr std::uint64_t kLastMilliseconds = 30'000;

  void Failed(std::uint64_t now) {
    const bool again = pause_ > 0 && now - failureTick_ <= 2 * kLastMilliseconds;
    pause_ = again ? std::min(2 * pause_, kLastMilliseconds) : kFirstMilliseconds;
    failureTick_ = now;
  }
  bool IsOver(std::uint64_t now) const { return now >= failureTick_ + pause_; }

 private:
  std::uint64_t failureTick_ = 0;
  std::uint64_t pause_ = 0;  // milliseconds
};

}  // namespace cms
