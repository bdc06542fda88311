#include "cms/runtime/critical.h"

#include <gtest/gtest.h>

#include <thread>

TEST(CMSCritical, LockTestTakesTheLockButNotTheHolder) {
  CMSCritical lock;
  ASSERT_NE(lock.LockTest(), 0);
  EXPECT_EQ(lock.Holder(), 0u);
  int other = -1;
  std::thread([&] { other = lock.LockTest(); }).join();
  EXPECT_EQ(other, 0);
  lock.UnLock();
}

TEST(CMSCritical, IsRecursiveAndForgetsTheHolderAtAnInnerUnlock) {
  CMSCritical lock;
  lock.Lock();
  const auto holder = lock.Holder();
  EXPECT_NE(holder, 0u);
  lock.lock();
  lock.unlock();
  EXPECT_EQ(lock.Holder(), 0u);
  int other = -1;
  std::thread([&] { other = lock.LockTest(); }).join();
  EXPECT_EQ(other, 0) << "the outer hold must survive the inner unlock";
  lock.UnLock();
}

TEST(ScopeLock, DeferredGuardNeverTouchesTheLockAndDoubleUnlockReleasesOnce) {
  CMSCritical lock;
  lock.Lock();
  { ScopeLock deferred(lock, false); }
  int other = -1;
  std::thread([&] { other = lock.LockTest(); }).join();
  EXPECT_EQ(other, 0);
  {
    ScopeLock guard(lock);
    guard.UnLock();
    guard.UnLock();
    std::thread([&] { other = lock.LockTest(); }).join();
    EXPECT_EQ(other, 0) << "the second unlock must not release the outer hold";
  }
  lock.UnLock();
}
