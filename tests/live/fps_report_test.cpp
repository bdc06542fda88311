#include "cms/live/fps_report.h"

#include <gtest/gtest.h>

#include <string>

#include "cms/runtime/clock.h"

namespace {

class SetClock : public cms::Clock {
 public:
  SetClock() { cms::ReplaceClock(this); }
  ~SetClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 0; }
  std::uint64_t now = 5000;
};

bool Feed(CMSFpsReport& report, int frames, unsigned long bytes) {
  bool closed = false;
  for (int i = 0; i < frames; ++i) {
    closed |= report.AddFrameCount(bytes, 1);
  }
  return closed;
}

TEST(FpsReport, RatesAreThoseOfTheIntervalThatTheCallCloses) {
  SetClock clock;
  CMSFpsReport report(true);
  EXPECT_FALSE(Feed(report, 25, 4000));
  clock.now += 1000;
  EXPECT_FALSE(report.AddFrameCount(0, 0)) << "the interval must be exceeded";
  EXPECT_EQ(report.GetRecentFps(), 30.0);
  EXPECT_EQ(report.GetRecentAvgFps(), 30.0);
  EXPECT_EQ(report.GetKbps(), 0.0);
  clock.now += 1;
  EXPECT_TRUE(report.AddFrameCount(100, 1));
  EXPECT_NEAR(report.GetRecentFps(), 24.975, 0.001);
  EXPECT_NEAR(report.GetRecentAvgFps(), 28.995, 0.001);
  EXPECT_NEAR(report.GetKbps(), 780.47, 0.01);
  clock.now += 2000;
  EXPECT_TRUE(report.AddFrameCount(0, 0));
  EXPECT_DOUBLE_EQ(report.GetRecentFps(), 0.5) << "the closing call counts for the next interval";
  EXPECT_DOUBLE_EQ(report.GetKbps(), 100 * 8 / 2000.0 / 1024 * 1000);
}

TEST(FpsReport, KeepsItsIntervalThroughCopiesAndTheTickCountsWrap) {
  SetClock clock;
  clock.now = 0xFFFFFFF0U;
  CMSFpsReport report(true);
  report.SetReportInterval(5);
  report.SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d", 3, "gate", 1);
  Feed(report, 50, 10);
  clock.now += 5000;
  CMSFpsReport copy;
  copy = report;
  EXPECT_EQ(copy.GetReportTitle(), "[LiveRecord]Site= 3(gate),Stream=1");
  EXPECT_FALSE(copy.AddFrameCount(0, 0));
  clock.now += 5000;
  EXPECT_TRUE(copy.AddFrameCount(0, 0));
  EXPECT_DOUBLE_EQ(copy.GetRecentFps(), 5.0);
  EXPECT_EQ(report.GetRecentFps(), 30.0);
}

TEST(FpsReport, BoundsItsSettings) {
  CMSFpsReport report;
  report.SetChannel(70);
  EXPECT_EQ(report.GetChannel(), 5);
  report.SetChannel(-1);
  EXPECT_EQ(report.GetChannel(), -1);
  report.SetReportFormat("%s", std::string(5000, 'x').c_str());
  EXPECT_EQ(report.GetReportTitle(), std::string(1023, 'x'));
  EXPECT_TRUE(report.IsLogOn());
  EXPECT_FALSE(report.IsDebuggerOn());
  report.SetReportInterval(-3);  // must not divide by a zero time
  for (int i = 0; i < 100; ++i) {
    report.AddFrameCount(1, 1);
    EXPECT_LT(report.GetRecentFps(), 1e6);
  }
}

}  // namespace
