#include "cms/runtime/thread.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/wait.h"

namespace {

using Clock = std::chrono::steady_clock;

class Loop : public Thread {
 public:
  ~Loop() override { stop(); }
  void run() override {
    ++runs;
    while (!IsStopRequested() || ignoreStop) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  std::atomic<int> runs{0};
  std::atomic<bool> ignoreStop{false};
};

class Job : public Runnable {
 public:
  void run() override {
    while (!leave) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void finish() override { ++finished; }
  std::atomic<bool> leave{false};
  std::atomic<int> finished{0};
};

std::string NameOfThread(std::uint32_t id) {
  std::ifstream file("/proc/self/task/" + std::to_string(id) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

}  // namespace

TEST(Thread, StartsOnceSettlesStopsAndStartsAgain) {
  Loop loop;
  loop.SetName("a thread with a long name");
  const auto begin = Clock::now();
  loop.start();
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(100));
  EXPECT_TRUE(loop.IsRunning());
  const auto id = loop.ThreadId();
  loop.start();
  EXPECT_EQ(loop.ThreadId(), id);
  EXPECT_EQ(NameOfThread(id), "a thread with a");
  loop.stop();
  EXPECT_FALSE(loop.IsRunning());
  EXPECT_FALSE(loop.IsStopRequested()) << "the next run would leave at once";
  EXPECT_EQ(NameOfThread(id), "") << "the native thread is gone when stop returns";
  EXPECT_EQ(loop.runs, 1);
  loop.start();
  EXPECT_TRUE(test::WaitFor([&] { return loop.runs == 2; }));
  loop.notifyStop();
  loop.waitStop();
  EXPECT_FALSE(loop.IsRunning());
}

TEST(Thread, WaitingForAThreadThatNobodyAskedToEndReturnsAtOnce) {
  Loop loop;
  loop.start();
  Job job;
  Thread other(job);
  other.start();
  const auto begin = Clock::now();
  for (int i = 0; i < 100; ++i) {  // a minute and more, were each to wait for some time
    loop.waitStop();
    other.waitStop();
  }
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
  EXPECT_TRUE(loop.IsRunning());
  loop.notifyStop();
  loop.waitStop();
  EXPECT_FALSE(loop.IsRunning());
  job.leave = true;
  EXPECT_TRUE(test::WaitFor([&] { return job.finished == 1; }));
}

TEST(Thread, StopBeforeStartLeavesNoRequestBehind) {
  Loop loop;
  loop.notifyStop();
  loop.stop();
  loop.waitStop();
  EXPECT_FALSE(loop.IsStopRequested());
}

TEST(Thread, StopGivesUpOnALoopThatIgnoresItAfterTenSeconds) {
  Loop loop;
  loop.ignoreStop = true;
  loop.start();
  const auto begin = Clock::now();
  loop.stop();
  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(10));
  EXPECT_TRUE(loop.IsRunning());
  EXPECT_TRUE(loop.IsStopRequested());
  loop.ignoreStop = false;
}

TEST(Thread, ARunnableGetsTheCallsAndTheThreadCountsAsRunning) {
  Job job;
  Thread thread(job);
  thread.start();
  job.leave = true;
  EXPECT_TRUE(test::WaitFor([&] { return job.finished == 1; }));
  EXPECT_TRUE(thread.IsRunning());
  const auto begin = Clock::now();
  thread.stop();
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8)) << "the thread has ended long ago";
  EXPECT_TRUE(thread.IsStopRequested());
}

TEST(Thread, DestructionWaitsForAThreadThatEndsByItself) {
  Job job;
  auto thread = std::make_unique<Thread>(job);
  thread->start();
  std::thread later([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    job.leave = true;
  });
  thread.reset();
  EXPECT_EQ(job.finished, 1);
  later.join();
}

TEST(Thread, DestructionLetsAThreadThatNeverEndsGoAfterThreeSeconds) {
  Job job;
  auto thread = std::make_unique<Thread>(job);
  thread->start();
  const auto begin = Clock::now();
  thread.reset();
  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(3));
  EXPECT_EQ(job.finished, 0);
  job.leave = true;
  EXPECT_TRUE(test::WaitFor([&] { return job.finished == 1; }));
}

TEST(Thread, StopsItselfWithoutWaitingForItself) {
  class Suicide : public Thread {
   public:
    ~Suicide() override { Thread::stop(); }
    void run() override {
      stop();
      waitStop();
      seen = IsStopRequested();
    }
    std::atomic<bool> seen{false};
  };
  Suicide thread;
  const auto begin = Clock::now();
  thread.start();
  EXPECT_TRUE(test::WaitFor([&] { return !thread.IsRunning(); }));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8));
  EXPECT_TRUE(thread.seen);
}

// Owners stop threads at the very moment at which these end by themselves.
TEST(Thread, StopRacesTheEndOfTheThread) {
  class Short : public Thread {
   public:
    ~Short() override { stop(); }
    void run() override { std::this_thread::sleep_for(std::chrono::milliseconds(99)); }
  };
  for (int round = 0; round < 30; ++round) {
    Short thread;
    thread.start();
    std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
    thread.stop();
    ASSERT_FALSE(thread.IsStopRequested());
  }
}
