#include "tools/service/days_clock.h"

#include <gtest/gtest.h>

namespace {

using tools::DaysClock;

constexpr std::int64_t kNow = 1'795'000'000;
constexpr std::int64_t kMonth = 30 * 86'400;

TEST(DaysClock, AClockThatGoesAheadHurriesNoDays) {
  DaysClock clock(kNow - 600);
  EXPECT_EQ(clock.Now(kNow, 50), kNow);
  EXPECT_EQ(clock.Now(kNow + 30, 80), kNow + 30);
  EXPECT_EQ(clock.Now(kNow + kMonth + 60, 110), kNow + 60);
  EXPECT_TRUE(clock.IsInDoubt());
  EXPECT_EQ(clock.Now(kNow + kMonth + 90, 140), kNow + 90);
  EXPECT_EQ(clock.Now(kNow + 120, 170), kNow + 120);  // it was set right
  EXPECT_FALSE(clock.IsInDoubt());
  EXPECT_EQ(clock.Now(kNow - kMonth, 200), kNow - kMonth);    // back is no harm
  EXPECT_EQ(clock.Now(kNow + 180, 230), kNow - kMonth + 30);  // nor, but later, is forth again
  EXPECT_EQ(clock.Now(kNow + 180 + DaysClock::kDoubt, 230 + DaysClock::kDoubt),
            kNow + 180 + DaysClock::kDoubt);
  EXPECT_FALSE(clock.IsInDoubt());
}

TEST(DaysClock, AWrongClockAtTheStartIsDoubtedForADay) {
  EXPECT_EQ(DaysClock(0).Now(kNow, 9), kNow);  // a first start
  DaysClock clock(kNow);
  EXPECT_EQ(clock.Now(kNow + kMonth, 9), kNow);
  EXPECT_TRUE(clock.IsInDoubt());
  EXPECT_EQ(clock.Now(kNow + kMonth + 100, 109), kNow + 100);
  const std::int64_t behind = 9 + DaysClock::kDoubt;
  EXPECT_EQ(clock.Now(kNow + kMonth + DaysClock::kDoubt, behind),
            kNow + kMonth + DaysClock::kDoubt);
  EXPECT_FALSE(clock.IsInDoubt());
}

TEST(DaysClock, WhoStartsAnewGoesOnDoubting) {
  std::int64_t last = kNow;
  std::int64_t doubted = 0;
  const std::int64_t wall = kNow + kMonth;
  for (int start = 0; start < 3; ++start) {  // each after a boot, for ten hours
    DaysClock clock(last, doubted);
    EXPECT_EQ(clock.Now(wall, 9), last);
    last = clock.Now(wall, 9 + DaysClock::kDoubt * 5 / 12);
    doubted = clock.Doubted();
    EXPECT_EQ(clock.IsInDoubt(), start < 2);
  }
  EXPECT_EQ(last, wall);
  EXPECT_EQ(doubted, 0);
}

}  // namespace
