#include "cms/live/internal/rate_meter.h"

#include <gtest/gtest.h>

TEST(RateMeter, FallsToNothingWhenNothingComesAndBeginsAnewAtAnOpening) {
  cms::RateMeter meter;
  EXPECT_EQ(meter.Fps(5'000), 0);
  std::uint64_t now = 10'000;
  for (int i = 0; i < 100; ++i, now += 40) {
    meter.Add(now, true, 1'000);
    meter.Add(now, false, 0);
  }
  EXPECT_NEAR(meter.Fps(now), 25, 0.5);
  EXPECT_NEAR(meter.Kbps(now), 200, 5);
  EXPECT_NEAR(meter.Fps(now + 1'900), 25, 0.5);
  EXPECT_EQ(meter.Fps(now + 2'200), 0);
  for (int i = 0; i < 100; ++i, now += 40) {  // sound alone
    meter.Add(now, false, 100);
  }
  EXPECT_EQ(meter.Fps(now), 0);
  EXPECT_NEAR(meter.Kbps(now), 20, 2);

  meter.Restart();
  now += 60'000;
  meter.Add(now, true, 1'000);
  EXPECT_EQ(meter.Fps(now), 0) << "not known yet";
  for (int i = 0; i < 5; ++i) {  // one frame in four seconds is slow, not dead
    meter.Add(now += 4'000, true, 1'000);
  }
  EXPECT_NEAR(meter.Fps(now + 9'000), 0.25, 0.01);
  EXPECT_EQ(meter.Fps(now + 11'000), 0);
}
