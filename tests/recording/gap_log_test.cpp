// The gap log by its bytes, through kills, torn tails, foreign writers and a full disk.
#include "cms/recording/gap_log.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/recording/database_bytes.h"

namespace {

using cms::GapCause;
using test::NumberAt;
using test::TimeAt;

constexpr std::size_t kGapBytes = 232;

cms::GapSite Site(std::uint32_t number) {
  return {number, L"Hof \u4E2D", L"10.0.0.7", 554};
}

std::vector<cms::GapRow> Rows() {
  return cms::ReadGapLog(0).rows;
}

TEST(GapLog, AGapIsOnDiskFromItsBeginning) {
  const test::WorkFolder work;
  cms::GapLogWriter writer;
  writer.SetSite(Site(7));
  writer.Begin(GapCause::kDiskFull, 1000, ENOSPC);
  std::string bytes = test::ReadWholeFile(work.Beside("GapLog0"));
  ASSERT_EQ(bytes.size(), kGapBytes);
  EXPECT_EQ(test::TextAt(bytes, 0, 32), u"Hof \u4E2D");
  EXPECT_EQ(test::TextAt(bytes, 64, 64), u"10.0.0.7");
  EXPECT_EQ(NumberAt(bytes, 192, 2), 554u);
  EXPECT_EQ(NumberAt(bytes, 194, 2), 7u);
  EXPECT_EQ(NumberAt(bytes, 196, 4), 7u);
  EXPECT_EQ(NumberAt(bytes, 200, 8), std::uint64_t{ENOSPC});
  EXPECT_EQ(TimeAt(bytes, 208), 1000);
  EXPECT_EQ(TimeAt(bytes, 216), 0);
  writer.Update(1030);  // no minute yet
  writer.Begin(GapCause::kDiskFull, 1050, ENOSPC);
  EXPECT_EQ(test::ReadWholeFile(work.Beside("GapLog0")), bytes);
  writer.Update(1060);
  bytes = test::ReadWholeFile(work.Beside("GapLog0"));
  EXPECT_EQ(bytes.size(), kGapBytes);
  EXPECT_EQ(TimeAt(bytes, 224), 1060);

  writer.Begin(GapCause::kCameraGone, 1070);
  writer.End(900);  // the clock was set back
  const auto rows = Rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].to, 1070);
  EXPECT_EQ(rows[1].from, 1070);
  EXPECT_EQ(rows[1].to, 1070);
  EXPECT_FALSE(writer.Open());
}

TEST(GapLog, TheNextRecordingEndsWhatAKilledProcessLeft) {
  const test::WorkFolder work;
  const pid_t child = fork();
  if (child == 0) {
    cms::GapLogWriter stopped;
    stopped.SetSite(Site(1));
    stopped.Begin(GapCause::kStopped, 500);
    cms::GapLogWriter other;
    other.SetSite(Site(2));
    other.Begin(GapCause::kCameraGone, 600);
    cms::GapLogWriter gone;
    gone.SetSite(Site(1));
    gone.Begin(GapCause::kCameraGone, 700);
    gone.Update(790);
    _exit(0);
  }
  int status = 1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  {  // and its last write is torn
    std::string bytes = test::ReadWholeFile(work.Beside("GapLog0"));
    test::WriteWholeFile(work.Beside("GapLog0"), bytes + bytes.substr(0, 100));
  }
  EXPECT_EQ(cms::ReadGapLog(0).tornBytes, 100u);
  cms::GapLogWriter writer;
  writer.SetSite(Site(1));
  writer.EndAbandoned(2000);
  writer.Begin(GapCause::kWaitingForKeyFrame, 2000);
  writer.EndAbandoned(3000);  // not its own
  const auto rows = Rows();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0].to, 2000);  // the user had stopped it until then
  EXPECT_EQ(rows[1].to, 0);     // another site's
  EXPECT_EQ(rows[2].to, 790);
  EXPECT_EQ(rows[3].to, 0);
  EXPECT_EQ(cms::ReadGapLog(0).tornBytes, 0u);
}

TEST(GapLog, KeepsWhatTheDiskCannotTakeAndWritesItLater) {
  const test::WorkFolder work;
  cms::GapLogWriter writer;
  writer.SetSite(Site(1));
  {
    test::FaultScope fault;
    fault.io.LimitSpace(0);
    for (int i = 0; i < 3; ++i) {
      writer.Begin(GapCause::kDiskFull, 1000 + 10 * i, ENOSPC);
      writer.End(1005 + 10 * i);
    }
    writer.Begin(GapCause::kCameraGone, 2000);
    EXPECT_TRUE(writer.HasWaiting());
    EXPECT_TRUE(Rows().empty());
  }
  writer.Update(2001);
  EXPECT_FALSE(writer.HasWaiting());
  const auto rows = Rows();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[2].from, 1020);
  EXPECT_EQ(rows[2].to, 1025);
  EXPECT_EQ(rows[3].to, 0);

  std::filesystem::remove(work.Beside("GapLog0"));  // the user tidies up
  writer.End(2010);
  ASSERT_EQ(Rows().size(), 1u);
  EXPECT_EQ(Rows()[0].from, 2000);
}

TEST(GapLog, SeveralWritersLoseNothing) {
  const test::WorkFolder work;
  constexpr int kWriters = 4;
  constexpr int kGaps = 50;
  std::vector<std::thread> threads;
  for (std::uint32_t site = 0; site < kWriters; ++site) {
    threads.emplace_back([site] {
      cms::GapLogWriter writer;
      writer.SetSite(Site(site));
      for (int i = 1; i <= kGaps; ++i) {
        writer.Begin(i % 2 == 0 ? GapCause::kCameraGone : GapCause::kConnecting, i);
      }
      writer.End(kGaps + 1);
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto rows = Rows();
  EXPECT_EQ(rows.size(), std::size_t{kWriters} * kGaps);
  std::vector<std::int64_t> next(kWriters, 1);
  for (const auto& row : rows) {
    EXPECT_EQ(row.from, next.at(row.siteNumber)++);
    EXPECT_EQ(row.to, row.from + 1);
  }
}

}  // namespace
