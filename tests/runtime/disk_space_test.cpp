#include "cms/runtime/disk_space.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "tests/support/faulty_file_io.h"

namespace {

class TurnedClock final : public cms::Clock {
 public:
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 0; }
  std::uint64_t now = 0xFFFF0000;  // the 32-bit count wraps during the test
};

class DiskSpace : public testing::Test {
 protected:
  DiskSpace() {
    cms::ReplaceFileIo(&io_);
    cms::ReplaceClock(&clock_);
  }
  ~DiskSpace() override {
    cms::ReplaceFileIo(nullptr);
    cms::ReplaceClock(nullptr);
  }
  std::uint64_t QueriesOf(const wchar_t* path, int expected = 1) {
    const std::uint64_t before = io_.Operations();
    EXPECT_EQ(cms::DiskFreeSpace(path, nullptr, nullptr, nullptr), expected);
    return io_.Operations() - before;
  }
  test::FaultyFileIo io_;
  TurnedClock clock_;
};

TEST_F(DiskSpace, ADriveIsAskedOncePerIntervalAndThread) {
  EXPECT_EQ(QueriesOf(L"Q:"), 1u);
  EXPECT_EQ(QueriesOf(L"Q:"), 0u);
  EXPECT_EQ(QueriesOf(L"Q"), 0u);  // the same drive
  EXPECT_EQ(QueriesOf(L"R:"), 1u);
  const auto thread = static_cast<std::uint32_t>(gettid());
  clock_.now += 60'000 + 13 * (thread * thread % 97);
  EXPECT_EQ(QueriesOf(L"Q:"), 0u);
  clock_.now += 1;
  EXPECT_EQ(QueriesOf(L"Q:"), 1u);
  EXPECT_EQ(QueriesOf(L"Q:"), 0u);
}

TEST_F(DiskSpace, OtherPathsAreAskedEveryTime) {
  for (const wchar_t* path :
       {L"q:", L"q", L"Q:\\", L"\\", L"/", L".", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(QueriesOf(path), 1u);
    EXPECT_EQ(QueriesOf(path), 1u);
  }
  EXPECT_EQ(QueriesOf(L"\\no such folder", 0), 1u);
  EXPECT_EQ(QueriesOf(L"", 0), 1u);
  EXPECT_EQ(QueriesOf(L"1:", 0), 1u);
}

TEST_F(DiskSpace, AFailureIsNotRememberedAndLeavesTheOutputsAlone) {
  std::uint64_t freeToCaller = 1;
  io_.FailOperation(0, EIO);
  EXPECT_EQ(cms::DiskFreeSpace(L"S:", &freeToCaller, nullptr, nullptr), 0);
  EXPECT_EQ(freeToCaller, 1u);
  io_.LimitSpace(4096);
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  EXPECT_EQ(cms::DiskFreeSpace(L"S:", &freeToCaller, &total, &free), 1);
  EXPECT_EQ(freeToCaller, 4096u);
  EXPECT_GE(total, free);
  io_.LimitSpace(1);
  EXPECT_EQ(cms::DiskFreeSpace(L"S:", &freeToCaller, nullptr, nullptr), 1);
  EXPECT_EQ(freeToCaller, 4096u);  // the remembered answer
}

}  // namespace
