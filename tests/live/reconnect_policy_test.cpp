#include "cms/live/reconnect_policy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "cms/runtime/clock.h"
#include "cms/runtime/internal/turns.h"
#include "tests/support/wait.h"

TEST(ReconnectPause, GrowsToItsLimitAndJitterTakesAtMostHalf) {
  const cms::ReconnectPolicy policy;
  std::uint32_t previous = 0;
  for (std::uint32_t failures = 1; failures < 100; ++failures) {
    const auto longest = cms::ReconnectPause(policy, cms::ConnectionFault::kNoAnswer, failures, 0);
    EXPECT_GE(longest, previous);
    EXPECT_LE(longest, policy.longestPauseMs);
    for (const std::uint32_t random : {1u, 499u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
      const auto pause =
          cms::ReconnectPause(policy, cms::ConnectionFault::kNoAnswer, failures, random);
      EXPECT_GE(pause, longest / 2);
      EXPECT_LE(pause, longest);
    }
    previous = longest;
  }
  EXPECT_EQ(previous, policy.longestPauseMs);
}

// A camera that is restarted, or a cable that is pulled for a moment.
TEST(ReconnectPause, AnAbsentCameraIsAskedOftenAtFirstAndNeverRarely) {
  cms::ReconnectPolicy policy;
  for (const auto fault :
       {cms::ConnectionFault::kUnreachable, cms::ConnectionFault::kClosedByCamera}) {
    std::uint64_t elapsed = 0;
    for (std::uint32_t failures = 1; failures < 1'000; ++failures) {
      const auto pause = cms::ReconnectPause(policy, fault, failures, 0);
      elapsed += pause;
      EXPECT_LE(pause, elapsed <= 180'000 ? 5'000u : 15'000u) << failures;
    }
    EXPECT_EQ(cms::ReconnectPause(policy, fault, 1'000, 0), 15'000u);
    policy.longestPauseMs = 100;  // who wants it quicker gets it
    EXPECT_LE(cms::ReconnectPause(policy, fault, 1'000, 0), 100u);
    policy.longestPauseMs = 60'000;
  }
}

TEST(ReconnectPause, ARefusedPasswordIsTriedAtMostFiveTimesInTheFirstHour) {
  const cms::ReconnectPolicy policy;
  std::uint64_t elapsed = 0;
  int attempts = 1;
  for (std::uint32_t failures = 1; elapsed < 3'600'000; ++failures) {
    elapsed += cms::ReconnectPause(policy, cms::ConnectionFault::kPasswordRefused, failures, ~0u);
    attempts += elapsed < 3'600'000 ? 1 : 0;
  }
  EXPECT_LE(attempts, 5);
}

namespace {

class CountingSite final : public cms::Turns::Member {
 public:
  std::uint64_t Turn(std::uint64_t now) override {
    EXPECT_FALSE(inTurn_.exchange(true)) << "two turns at once";
    turns_.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    inTurn_.store(false);
    return now + 1;
  }
  std::atomic<int> turns_{0};
  std::atomic<bool> inTurn_{false};
};

}  // namespace

TEST(Turns, TurnsNeverOverlapAndNoneRunsAfterRemove) {
  auto& supervisor = cms::Turns::Keeping();
  std::vector<std::thread> users;
  for (int user = 0; user < 8; ++user) {
    users.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        auto site = std::make_unique<CountingSite>();
        supervisor.Add(site.get(), 0);
        ASSERT_TRUE(test::WaitFor([&] {
          supervisor.Poke(site.get());
          return site->turns_ >= 3;
        }));
        supervisor.Remove(site.get());
        const int turns = site->turns_;
        EXPECT_FALSE(site->inTurn_);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(site->turns_, turns);
      }
    });
  }
  for (auto& user : users) {
    user.join();
  }
}
