#include "cms/runtime/condition.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/support/wait.h"

namespace {

// A number of threads that wait once; `entered` and `left` change under the lock.
class Waiters {
 public:
  ~Waiters() {
    for (auto& thread : threads_) {
      thread.join();
    }
  }
  void Add(int count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this] {
        lock.Lock();
        ++entered_;
        condition.Wait();
        ++left_;
        lock.UnLock();
      });
    }
  }
  // A thread that has entered and let the lock go again is inside Wait.
  bool AllWait(int count) {
    return test::WaitFor([&] {
      ScopeLock guard(lock);
      return entered_ == count;
    });
  }
  int Left() {
    ScopeLock guard(lock);
    return left_;
  }
  bool HaveLeft(int count) {
    return test::WaitFor([&] { return Left() == count; });
  }

  CMSCritical lock;
  CMSCondition condition{lock};

 private:
  int entered_ = 0;
  int left_ = 0;
  std::vector<std::thread> threads_;
};

}  // namespace

TEST(CMSCondition, NotifyReleasesOneThreadAndNotifyAllTheRest) {
  Waiters waiters;
  waiters.Add(6);
  ASSERT_TRUE(waiters.AllWait(6));
  for (int released = 1; released <= 3; ++released) {
    waiters.condition.Notify();
    ASSERT_TRUE(waiters.HaveLeft(released));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(waiters.Left(), released) << "one Notify let several threads go";
  }
  waiters.condition.NotifyAll();
  EXPECT_TRUE(waiters.HaveLeft(6));
}

TEST(CMSCondition, ASignalWithoutWaitersIsLost) {
  Waiters waiters;
  waiters.condition.Notify();
  waiters.condition.NotifyAll();
  waiters.Add(1);
  ASSERT_TRUE(waiters.AllWait(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(waiters.Left(), 0);
  // More signals than waiters do not add up either.
  waiters.lock.Lock();
  waiters.condition.Notify();
  waiters.condition.Notify();
  waiters.condition.NotifyAll();
  waiters.lock.UnLock();
  ASSERT_TRUE(waiters.HaveLeft(1));
  waiters.Add(1);
  ASSERT_TRUE(waiters.AllWait(2));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(waiters.Left(), 1);
  waiters.condition.Notify();
}

// Two threads on one condition: each notifies the other and then waits at once. Without generations
// it would take its own signal back and leave the other asleep.
TEST(CMSCondition, ALatecomerCannotTakeASignalThatWasGivenBefore) {
  constexpr int kRounds = 5000;
  CMSCritical lock;
  CMSCondition turned(lock);
  int turns = 0;
  bool waiting = false;
  std::thread other([&] {
    ScopeLock guard(lock);
    waiting = true;
    for (int i = 0; i < kRounds; ++i) {
      turned.Wait();
      ++turns;
      turned.Notify();
    }
  });
  ASSERT_TRUE(test::WaitFor([&] {
    ScopeLock guard(lock);
    return waiting;
  }));
  int stolen = 0;
  {
    ScopeLock guard(lock);
    for (int i = 0; i < kRounds && stolen == 0; ++i) {
      turned.Notify();
      turned.Wait();
      stolen += turns != i + 1 ? 1 : 0;
    }
  }
  ASSERT_EQ(stolen, 0);
  other.join();
}

TEST(CMSCondition, TheTimedWaitIsNone) {
  CMSCritical lock;
  CMSCondition condition(lock);
  lock.Lock();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(condition.WaitForMilliseconds(60000), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
  EXPECT_NE(lock.Holder(), 0u);
  lock.UnLock();
}

// Consumers take tokens that producers make, one Notify a token: every token is taken exactly once,
// and the external lock really excludes.
TEST(CMSCondition, HandsEveryTokenOfManyProducersToOneOfManyConsumers) {
  constexpr int kProducers = 4;
  constexpr int kConsumers = 6;
  constexpr int kTokens = 3000;  // of each producer
  CMSCritical lock;
  CMSCondition filled(lock);
  CMSCondition room(lock);
  int held = 0;
  int taken = 0;
  bool over = false;
  std::vector<std::thread> producers;
  std::vector<std::thread> consumers;
  for (int i = 0; i < kConsumers; ++i) {
    consumers.emplace_back([&] {
      lock.Lock();
      for (;;) {
        while (held == 0 && !over) {
          filled.Wait();
        }
        if (held == 0) {
          break;
        }
        --held;
        ++taken;
        room.Notify();
      }
      lock.UnLock();
    });
  }
  for (int i = 0; i < kProducers; ++i) {
    producers.emplace_back([&] {
      for (int token = 0; token < kTokens; ++token) {
        lock.Lock();
        while (held == 8) {
          room.Wait();
        }
        ++held;
        filled.Notify();
        lock.UnLock();
      }
    });
  }
  for (auto& producer : producers) {
    producer.join();
  }
  lock.Lock();
  over = true;
  filled.NotifyAll();
  lock.UnLock();
  for (auto& consumer : consumers) {
    consumer.join();
  }
  EXPECT_EQ(taken, kProducers * kTokens);
}
