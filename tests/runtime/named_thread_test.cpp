#include "cms/runtime/internal/named_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "tests/support/no_more_threads.h"
#include "tests/support/wait.h"

namespace {

TEST(NamedThread, HasItsNameBeforeItBeginsAndStartsAgainOnceJoined) {
  cms::NamedThread thread;
  for (int run = 0; run < 2; ++run) {
    std::string name(16, '\0');
    ASSERT_TRUE(thread.Start("cms-15-bytes-ok",
                             [&] { pthread_getname_np(pthread_self(), name.data(), 16); }));
    EXPECT_TRUE(thread.IsStarted());
    thread.Join();
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_STREQ(name.c_str(), "cms-15-bytes-ok");
  }
}

TEST(NamedThread, WithoutThreadsStartingIsRefusedWithTheReason) {
  cms::NamedThread thread;
  std::atomic<int> runs{0};
  {
    const test::NoMoreThreads refused;
    EXPECT_FALSE(thread.Start("cms-refused", [&] { ++runs; }));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(cms::NamedThread::StartDetached("cms-refused", [&] { ++runs; }));
    EXPECT_FALSE(thread.IsStarted());
    thread.Join();  // nothing to wait for
  }
  EXPECT_TRUE(cms::NamedThread::StartDetached("cms-refused", [&] { ++runs; }));
  EXPECT_TRUE(test::WaitFor([&] { return runs == 1; }));
}

}  // namespace
