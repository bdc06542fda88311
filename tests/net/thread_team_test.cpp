#include "cms/net/internal/thread_team.h"

#include <gtest/gtest.h>

#include <atomic>

#include "tests/support/no_more_threads.h"

namespace {

TEST(ThreadTeam, ThreadsStartOthersAndAllAreWaitedFor) {
  std::atomic<int> ended{0};
  cms::ThreadTeam team;
  team.WaitAll();  // of none
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(team.Start("cms-first", [&] {
        EXPECT_TRUE(team.Start("cms-second", [&] { ++ended; }));
        ++ended;
      }));
    }
    team.WaitAll();
    EXPECT_EQ(ended, 10 * (round + 1));
  }
  const test::NoMoreThreads refused;
  EXPECT_FALSE(team.Start("cms-refused", [&] { ++ended; }));
  team.WaitAll();
  EXPECT_EQ(ended, 200);
}

}  // namespace
