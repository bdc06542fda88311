#include "cms/playback/fragments/internal/fragment_clock.h"

#include <algorithm>

namespace cms {

FragmentClock::Span FragmentClock::Next(std::int64_t taken, bool mayPart) {
  constexpr int kUsualRate = 25;
  constexpr std::int64_t kSmoothing = 8;
  constexpr std::int64_t kPull = 4;  // so many pictures make up for what the row is off
  Span span;
  taken += shift_;
  if (!any_ || (mayPart && taken - next_ > second_)) {
    next_ = taken;
  } else if (mayPart && next_ - taken > second_) {
    shift_ += next_ - taken;
    taken = next_;
    span.shifted = true;
  } else {
    // One that is late tells little of those that follow.
    const std::int64_t most = interval_ == 0 ? second_ : interval_ * kPull;
    const std::int64_t step = std::clamp<std::int64_t>(taken - last_, 1, most);
    interval_ = interval_ == 0 ? step : (interval_ * (kSmoothing - 1) + step) / kSmoothing;
  }
  any_ = true;
  last_ = taken;
  const std::int64_t usual = interval_ == 0 ? second_ / kUsualRate : interval_;
  span.begin = next_;
  span.length =
      std::clamp(usual + (taken - next_) / kPull, std::max<std::int64_t>(usual / 4, 1), usual * 4);
  next_ += span.length;
  return span;
}

}  // namespace cms
