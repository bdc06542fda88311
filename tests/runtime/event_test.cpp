#include "cms/runtime/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

TEST(Event, WaitsTimeOutStayReleasedWhileSetAndBlockAgainAfterReset) {
  cms::Event event;
  EXPECT_FALSE(event.Wait(0));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(event.Wait(1020));  // more than a second: the deadline carries into the seconds
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1020));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait());
  event.Reset();
  EXPECT_FALSE(event.Wait(1));
}

// Two threads hand a plain counter to and fro; a lost wake-up hangs, a missing barrier is a data
// race.
TEST(Event, NoWakeUpIsLostAndWhatWasWrittenBeforeSetIsSeenAfterWait) {
  constexpr int kRounds = 20000;
  cms::Event ping;
  cms::Event pong;
  int baton = 0;
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      ping.Wait();
      ping.Reset();
      ++baton;
      pong.Set();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    ++baton;
    ping.Set();
    pong.Wait();
    pong.Reset();
  }
  other.join();
  EXPECT_EQ(baton, 2 * kRounds);
}

TEST(Event, SetReleasesEveryThreadThatWaitsEvenWhenResetFollowsAtOnce) {
  cms::Event event;
  std::atomic<int> begun{0};
  std::vector<std::thread> waiters;
  std::atomic<int> released{0};
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      ++begun;
      released += event.Wait(20000) ? 1 : 0;
    });
  }
  while (begun != 4) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // into the wait itself
  event.Set();
  event.Reset();
  for (auto& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(released, 4);
}
