#include "cms/runtime/stop_watch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "cms/runtime/clock.h"

namespace {

class HandClock : public cms::Clock {
 public:
  HandClock() { cms::ReplaceClock(this); }
  ~HandClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 0; }
  std::uint64_t now = 5000;
};

}  // namespace

TEST(StopWatch, CountsTicksInMilliseconds) {
  HandClock clock;
  StopWatch watch(false, true);
  EXPECT_EQ(watch.getFrequency(), 0u);
  EXPECT_EQ(watch.getBeginTimeStamp(), 5000u);
  EXPECT_EQ(watch.getElaspedTicks(), 0u);
  watch.start();
  clock.now += 250;
  EXPECT_EQ(watch.getElaspedMilliseconds(), 250u);
  watch.stop();
  clock.now += 1000;
  EXPECT_EQ(watch.getElaspedTicks(), 250u);
  EXPECT_FALSE(watch.isRunning());
  watch.start();
  EXPECT_EQ(watch.getStopTimeStamp(), 5250u) << "start keeps the stop time stamp";
  watch.restart();
  EXPECT_EQ(watch.getStopTimeStamp(), 0u);

  StopWatch other(true, true);
  clock.now += 40;
  StopWatch synced(false, true);
  synced.syncTimer(other);
  EXPECT_FALSE(synced.isRunning());
  EXPECT_EQ(synced.getStartTimeStamp(), other.getStartTimeStamp());
}

TEST(StopWatch, CountsNanosecondsOfTheMonotonicClock) {
  const auto begin = std::chrono::steady_clock::now();
  StopWatch watch(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  watch.stop();
  const auto outside = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(watch.getFrequency(), 1'000'000'000u);
  EXPECT_GE(watch.getElaspedMilliseconds(), 30u);
  EXPECT_LE(std::chrono::nanoseconds(watch.getElaspedTicks()), outside);
  EXPECT_EQ(watch.getElaspedMilliseconds(), watch.getElaspedTicks() / 1'000'000);
}
