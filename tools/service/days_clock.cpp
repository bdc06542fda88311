#include "tools/service/days_clock.h"

namespace tools {

std::int64_t DaysClock::Now(std::int64_t wall, std::int64_t passed) {
  const bool isFirst = passed_ < 0;
  const std::int64_t expected = isFirst ? now_ : now_ + passed - passed_;
  const bool ahead = now_ > 0 && wall - expected > (isFirst ? kAway : kStep);
  passed_ = passed;
  if (ahead && !IsInDoubt()) {
    doubtedSince_ = passed - (isFirst ? doubted_ : 0);
  }
  if (!ahead || Doubted() >= kDoubt) {
    doubtedSince_.reset();
  }
  return now_ = IsInDoubt() ? expected : wall;
}

}  // namespace tools
