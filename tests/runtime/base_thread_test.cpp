#include "cms/runtime/base_thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "cms/runtime/critical_zone.h"
#include "cms/runtime/thread.h"
#include "tests/support/no_more_threads.h"

namespace {

class Worker : public CLFX::CLFXBaseThread {
 public:
  ~Worker() override {
    EndThread();
    WaitThread(kNoTimeLimit);
  }
  std::uint32_t ThreadRoutine() override {
    while (IsKeepWorking()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 7;
  }
  using CLFXBaseThread::EndThread;
};

}  // namespace

TEST(CLFXBaseThread, StartsOnceAndIsClosedBeforeItStartsAgain) {
  Worker worker;
  EXPECT_EQ(worker.GetHandle(), nullptr);
  EXPECT_EQ(worker.WaitThread(0), 0u);
  ASSERT_EQ(worker.StartThread(), 2);
  EXPECT_EQ(worker.StartThread(), 1);
  EXPECT_NE(worker.GetHandle(), nullptr);
  EXPECT_NE(worker.ThreadId(), 0u);
  EXPECT_EQ(worker.WaitThread(5), Worker::kTimeOut);
  std::uint32_t code = 0;
  EXPECT_FALSE(worker.GetExitCode(code));
  worker.EndThread();
  EXPECT_EQ(worker.WaitThread(Worker::kNoTimeLimit), 0u);
  EXPECT_TRUE(worker.GetExitCode(code));
  EXPECT_EQ(code, 7u);
  EXPECT_EQ(worker.StartThread(), 1) << "an ended thread keeps its handle until it is closed";
  worker.CloseThread();
  EXPECT_EQ(worker.GetHandle(), nullptr);
  EXPECT_EQ(worker.StartThread(), 2);
}

TEST(CLFXBaseThread, ARefusedThreadIsReportedAndLeavesNothingBehind) {
  Worker worker;
  Thread thread;
  {
    const test::NoMoreThreads refused;
    EXPECT_EQ(worker.StartThread(), 0);
    EXPECT_FALSE(worker.IsKeepWorking());
    try {
      thread.start();
      FAIL() << "start must throw";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "thread creation failed");
    }
    EXPECT_FALSE(thread.IsRunning());
  }
  EXPECT_EQ(worker.StartThread(), 2);
  EXPECT_NO_THROW(thread.start());
}

TEST(CriticalZone, IsRecursiveAndTestsWithoutBlocking) {
  CLFX::CLFX_CRITICAL_ZONE zone;
  const auto freeForOthers = [&] {
    bool got = false;
    std::thread([&] {
      got = zone.LOCK_TEST();
      if (got) {
        zone.UNLOCK();
      }
    }).join();
    return got;
  };
  zone.LOCK();
  zone.LOCK();
  zone.UNLOCK();
  EXPECT_FALSE(freeForOthers());
  zone.UNLOCK();
  EXPECT_TRUE(freeForOthers());
}
