#include "cms/recording/internal/retry_pause.h"

#include <gtest/gtest.h>

namespace {

TEST(RetryPause, GrowsWhileFailuresFollowEachOtherAndBeginsAnewBehindALongQuiet) {
  cms::RetryPause pause;
  std::uint64_t now = 5;
  EXPECT_TRUE(pause.IsOver(now));
  for (const std::uint64_t milliseconds : {1000, 2000, 4000, 8000, 16'000, 30'000, 30'000}) {
    pause.Failed(now);
    EXPECT_FALSE(pause.IsOver(now + milliseconds - 1)) << milliseconds;
    now += milliseconds;
    EXPECT_TRUE(pause.IsOver(now)) << milliseconds;
  }
  now += 30'000;  // a minute behind the last failure
  pause.Failed(now);
  EXPECT_FALSE(pause.IsOver(now + 29'999));
  now += 60'001;
  pause.Failed(now);
  EXPECT_TRUE(pause.IsOver(now + 1000));
}

}  // namespace
