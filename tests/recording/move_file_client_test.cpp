#include "cms/recording/move_file_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "cms/recording/internal/file_move.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/wait.h"

namespace {

constexpr std::uint32_t kLong = 30'000;

class MoveFileClient : public testing::Test {
 protected:
  MoveFileClient() {
    std::filesystem::create_directory(folder_.File("nas"));
    cms::ReplaceFileIo(&io_);
  }
  ~MoveFileClient() override { cms::ReplaceFileIo(nullptr); }

  void Write(const std::string& name, const std::string& content) {
    test::WriteWholeFile(folder_.File(name), content);
  }
  std::string Read(const std::string& name) const {
    return test::ReadWholeFile(folder_.File(name));
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(folder_.File(name)); }
  void Add(CLFX_MOVEFILE_Client& mover, const std::string& from, const std::string& to) {
    mover.AddMove(folder_.SystemFile(from), folder_.SystemFile(to));
  }
  int Move(const std::string& from, const std::string& to) {
    return cms::MoveFile(io_, folder_.File(from), folder_.File(to));
  }

  test::TemporaryFolder folder_;
  test::FaultyFileIo io_;
};

TEST_F(MoveFileClient, MovesInOrderAndReplaces) {
  CLFX_MOVEFILE_Client mover;
  Write("a", "first");
  Write("b", "second");
  Write("nas/t", "before");
  Add(mover, "a", "nas/t");
  Add(mover, "b", "nas/t");
  EXPECT_EQ(mover.Pending(), 2u);
  EXPECT_TRUE(mover.StartMove());
  EXPECT_FALSE(mover.StartMove());
  EXPECT_TRUE(test::WaitFor([&] { return mover.Pending() == 0; }));
  EXPECT_EQ(Read("nas/t"), "second");
  EXPECT_FALSE(Exists("a") || Exists("b"));
  Write("c", "third");  // added while the thread sleeps
  Add(mover, "c", "nas/c");
  EXPECT_TRUE(test::WaitFor([&] { return mover.Pending() == 0; }));
  EXPECT_EQ(Read("nas/c"), "third");
  EXPECT_FALSE(mover.Supervision(10));  // it still runs
  mover.StopMove();
  EXPECT_TRUE(mover.Supervision(kLong));
  EXPECT_TRUE(mover.StartMove());  // seen off, it may start again
  mover.SetHighPriority();
}

TEST_F(MoveFileClient, ATargetThatIsAwayKeepsTheOrderUntilItIsBack) {
  CLFX_MOVEFILE_Client mover;
  io_.AwayFrom(folder_.File("nas"));
  for (const char* name : {"a", "b"}) {
    Write(name, name);
    Add(mover, name, "nas/t");
  }
  Write("c", "c");
  Add(mover, "c", "elsewhere");  // could go, but its turn has not come
  EXPECT_TRUE(mover.StartMove());
  EXPECT_TRUE(test::WaitFor([&] { return mover.LastError() == EHOSTUNREACH; }));
  const auto before = io_.Operations();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LE(io_.Operations() - before, 10u);  // it does not try all the time
  EXPECT_EQ(mover.Pending(), 3u);
  EXPECT_TRUE(Exists("a") && Exists("b") && Exists("c"));
  io_.AwayFrom("");
  EXPECT_TRUE(test::WaitFor([&] { return mover.Pending() == 0; }));
  EXPECT_EQ(Read("nas/t"), "b");
  EXPECT_EQ(Read("elsewhere"), "c");
}

TEST_F(MoveFileClient, AShortPathStaysAtTheFrontUntilLastMove) {
  CLFX_MOVEFILE_Client mover;
  Write("a", "a");
  mover.AddMove(L"C:", folder_.SystemFile("x"));
  Add(mover, "a", "nas/a");
  Add(mover, "none", "nas/none");
  EXPECT_TRUE(mover.StartMove());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(io_.Operations(), 0u);
  EXPECT_EQ(mover.Pending(), 3u);
  mover.StopMove();
  EXPECT_EQ(mover.LastMove(), 2);  // the short one and the missing one
  EXPECT_EQ(mover.Pending(), 0u);
  EXPECT_EQ(Read("nas/a"), "a");
  EXPECT_TRUE(mover.Supervision(kLong));
}

TEST_F(MoveFileClient, LastMoveBesideTheThreadMovesEachFileOnce) {
  for (int round = 0; round < 20; ++round) {
    CLFX_MOVEFILE_Client mover;
    for (int i = 0; i < 20; ++i) {
      const std::string name = std::to_string(i);
      Write(name, name);
      Add(mover, name, "nas/" + name);
    }
    EXPECT_TRUE(mover.StartMove());
    EXPECT_EQ(mover.LastMove(), 0);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(Read("nas/" + std::to_string(i)), std::to_string(i));
    }
  }
}

TEST_F(MoveFileClient, AnotherVolumeGetsACopyAndTheSourceGoes) {
  const test::TemporaryFolder other("/dev/shm");
  struct stat here {};
  struct stat there {};
  ASSERT_TRUE(stat(folder_.Path().c_str(), &here) == 0 && stat(other.Path().c_str(), &there) == 0);
  if (here.st_dev == there.st_dev) {
    io_.OtherVolume(other.Path());
  }
  const std::string content(3'000'001, 'v');
  Write("a", content);
  EXPECT_EQ(cms::MoveFile(io_, folder_.File("a"), other.File("a")), 0);
  EXPECT_TRUE(test::ReadWholeFile(other.File("a")) == content);
  EXPECT_FALSE(Exists("a"));
  EXPECT_EQ(other.Names(), std::vector<std::string>{"a"});
  EXPECT_EQ(io_.OpenHandles(), 0);
}

TEST_F(MoveFileClient, AFileThatIsStillWrittenIsNotCopied) {
  io_.OtherVolume(folder_.File("nas"));
  Write("a", "a");
  const cms::ScopedFile recorder(io_, folder_.File("a"), cms::kFileReadWrite | cms::kFileExclusive);
  EXPECT_EQ(Move("a", "nas/a"), EWOULDBLOCK);
  EXPECT_TRUE(Exists("a") && !Exists("nas/a"));
}

TEST_F(MoveFileClient, TwoNamesOfOneFileAreNotMovedOntoEachOther) {
  Write("a", "a");
  ASSERT_EQ(link(folder_.File("a").c_str(), folder_.File("nas/a").c_str()), 0);
  EXPECT_EQ(Move("a", "a"), 0);
  EXPECT_EQ(Move("a", "nas/a"), 0);
  EXPECT_TRUE(Read("a") == "a" && Read("nas/a") == "a");
}

// Whichever operation fails, and even with a power cut behind it, the file is whole in one place.
TEST_F(MoveFileClient, NeverHalfAFileAndNeverNone) {
  const std::string content(1'200'000, 'n');
  for (const bool cutPower : {false, true}) {
    for (const bool across : {false, true}) {
      io_.OtherVolume(across ? folder_.File("nas") : "");
      for (std::uint64_t n = 0;; ++n) {
        SCOPED_TRACE(n);
        Write("a", content);
        Write("nas/a", "before");
        io_.FailOperation(n, EIO);
        const int error = Move("a", "nas/a");
        const bool reached = io_.Operations() > n;
        io_.FailOperation(test::FaultyFileIo::kNever, 0);
        ASSERT_EQ(io_.OpenHandles(), 0);
        if (cutPower) {
          io_.CutPower();
        }
        const std::string target = Read("nas/a");
        const bool moved = target == content;
        const bool stayed = Read("a") == content;
        ASSERT_TRUE(moved || stayed);
        ASSERT_TRUE(moved || target == "before" || (cutPower && target.empty()));
        if (!cutPower) {
          // In both places only where the one that was replaced could not be given back.
          ASSERT_EQ(stayed, error != 0);
          ASSERT_FALSE(Exists("nas/a.moving"));
        }
        if (!reached) {
          ASSERT_EQ(error, 0);
          ASSERT_GE(n, across ? 15u : 4u);
          break;
        }
      }
    }
  }
}

// A target that nothing was replaced under is not left in two places.
TEST_F(MoveFileClient, ASourceThatStaysKeepsNoCopyUnderANewName) {
  io_.OtherVolume(folder_.File("nas"));
  bool reached = true;
  for (std::uint64_t n = 0; reached; ++n) {
    Write("a", "content");
    io_.FailOperation(n, EIO);
    const int error = Move("a", "nas/a");
    reached = io_.Operations() > n;
    io_.FailOperation(test::FaultyFileIo::kNever, 0);
    ASSERT_EQ(Exists("a"), error != 0) << n;
    ASSERT_EQ(Exists("nas/a"), error == 0) << n;
    std::filesystem::remove(folder_.File("nas/a"));
  }
}

TEST_F(MoveFileClient, WhatAKilledMoveLeftGoesAndWhatAnotherOneCopiesStays) {
  CLFX_MOVEFILE_Client mover;
  Write("nas/old.drv.moving", "half");
  Write("nas/other.drv.moving", "being copied");
  Write("nas/notes.moving", "somebody's");
  Write("a", "a");
  Add(mover, "a", "nas/a");
  const cms::ScopedFile other(io_, folder_.File("nas/other.drv.moving"),
                              cms::kFileReadWrite | cms::kFileExclusive);
  EXPECT_TRUE(mover.StartMove());
  EXPECT_TRUE(test::WaitFor([&] { return mover.Pending() == 0; }));
  EXPECT_EQ(Read("nas/a"), "a");
  EXPECT_FALSE(Exists("nas/old.drv.moving"));
  EXPECT_TRUE(Exists("nas/other.drv.moving") && Exists("nas/notes.moving"));
}

}  // namespace
