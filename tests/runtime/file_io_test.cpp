#include "cms/runtime/file_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "tests/support/faulty_file_io.h"
#include "tests/support/process_state.h"

namespace {

using cms::SystemFileIo;

TEST(FileIo, OpenModesLocksAndErrors) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("a");
  cms::FileIo& io = SystemFileIo();
  const auto descriptors = test::OpenDescriptors();

  EXPECT_EQ(io.Open(path, cms::kFileReadWrite), -1);
  EXPECT_EQ(errno, ENOENT);
  {
    cms::ScopedFile first(io, path,
                          cms::kFileReadWrite | cms::kFileCreateNew | cms::kFileExclusive);
    ASSERT_TRUE(first);
    EXPECT_EQ(io.WriteAll(first.Handle(), "abc", 3), 3u);
    EXPECT_EQ(io.Open(path, cms::kFileReadWrite | cms::kFileCreateNew), -1);
    EXPECT_EQ(errno, EEXIST);
    // A second owner is refused before anything of the file is touched.
    EXPECT_EQ(io.Open(path, cms::kFileReadWrite | cms::kFileExclusive | cms::kFileTruncate), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(io.Size(first.Handle()), 3);
  }
  {
    cms::ScopedFile again(io, path, cms::kFileRead | cms::kFileExclusive);
    ASSERT_TRUE(again);
    char text[8];
    EXPECT_EQ(io.ReadAllAt(again.Handle(), text, 8, 1), 2u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(std::string(text, 2), "bc");
    EXPECT_EQ(io.Write(again.Handle(), "x", 1), -1);
  }
  EXPECT_EQ(io.Close(-1), -1);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
}

// One replaces the file again and again while it holds the lock; the other never gets the lock of a
// file that has been replaced, which would let it write where nobody reads.
TEST(FileIo, AnExclusiveFileIsTheOneOfThatName) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("a");
  cms::FileIo& io = SystemFileIo();
  test::WriteWholeFile(path, "");
  std::atomic<bool> stop{false};
  std::thread replacing([&] {
    while (!stop) {
      const cms::ScopedFile held(io, path, cms::kFileReadWrite | cms::kFileExclusive);
      if (held) {
        test::WriteWholeFile(path + ".tmp", "");
        EXPECT_EQ(io.Rename(path + ".tmp", path), 0);
      }
    }
  });
  int locked = 0;
  int stale = 0;
  while (locked < 3000) {
    const cms::ScopedFile held(io, path, cms::kFileReadWrite | cms::kFileExclusive);
    if (held) {
      struct stat own {};
      cms::FileStatus named;
      EXPECT_EQ(fstat(held.Handle(), &own), 0);
      stale += io.Status(path, named) && named.inode == own.st_ino ? 0 : 1;
      ++locked;
    }
  }
  stop = true;
  replacing.join();
  EXPECT_EQ(stale, 0);
}

TEST(FileIo, NamesFoldersSpaceAndStatus) {
  const test::TemporaryFolder folder;
  cms::FileIo& io = SystemFileIo();
  EXPECT_EQ(io.MakeDirectory(folder.File("d")), 0);
  test::WriteWholeFile(folder.File("x"), "1234");
  test::WriteWholeFile(folder.File("d/y"), "replaced");
  EXPECT_EQ(io.Rename(folder.File("x"), folder.File("d/y")), 0);
  EXPECT_EQ(io.SyncFolder(folder.File("d")), 0);
  EXPECT_EQ(test::ReadWholeFile(folder.File("d/y")), "1234");
  cms::FileStatus status;
  ASSERT_TRUE(io.Status(folder.File("d/y"), status));
  EXPECT_TRUE(status.isRegular && !status.isDirectory && status.size == 4);
  EXPECT_FALSE(io.Status(folder.File("none"), status));
  EXPECT_EQ(io.RemoveDirectory(folder.File("d")), -1);
  EXPECT_EQ(io.Remove(folder.File("d/y")), 0);
  EXPECT_EQ(io.RemoveDirectory(folder.File("d")), 0);
  EXPECT_EQ(io.SyncFolder(folder.File("d")), -1);
  cms::FreeSpace space;
  ASSERT_TRUE(io.Space(folder.Path(), space));
  EXPECT_TRUE(space.total >= space.free && space.free >= space.freeToCaller && space.total > 0);
  EXPECT_FALSE(io.Space(folder.File("none"), space));
  EXPECT_EQ(cms::NativeFolderOf("a"), ".");
  EXPECT_EQ(cms::NativeFolderOf("/a"), "/");
  EXPECT_EQ(cms::NativeFolderOf("/a/b"), "/a");
}

TEST(FileIo, WholeTransfersSurviveShortOnesAndTellWhatFailed) {
  const test::TemporaryFolder folder;
  test::FaultyFileIo io;
  cms::ScopedFile file(io, folder.File("a"), cms::kFileReadWrite | cms::kFileCreate);
  const std::string text(1000, 'x');
  io.LimitWrite(7);
  EXPECT_EQ(io.WriteAll(file.Handle(), text.data(), text.size()), text.size());
  io.LimitSpace(10);
  EXPECT_EQ(io.WriteAll(file.Handle(), text.data(), text.size()), 10u);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(io.Size(file.Handle()), 1010);
  io.FailOperation(0, EIO);
  char byte;
  EXPECT_EQ(io.ReadAllAt(file.Handle(), &byte, 1, 0), 0u);
  EXPECT_EQ(errno, EIO);
}

// The tests' power cut itself: it must lose what was not synced and nothing else.
TEST(FaultyFileIo, APowerCutKeepsWhatWasSyncedOnly) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("old"), "old");
  test::WriteWholeFile(folder.File("target"), "before");
  test::FaultyFileIo io;
  cms::ScopedFile old(io, folder.File("old"), cms::kFileReadWrite);
  io.Seek(old.Handle(), 0, SEEK_END);
  io.WriteAll(old.Handle(), "+safe", 5);
  io.Sync(old.Handle());
  io.WriteAll(old.Handle(), "+lost", 5);
  cms::ScopedFile fresh(io, folder.File("new"), cms::kFileReadWrite | cms::kFileCreate);
  io.WriteAll(fresh.Handle(), "abc", 3);
  io.Sync(fresh.Handle());
  EXPECT_EQ(io.Rename(folder.File("new"), folder.File("target")), 0);
  EXPECT_EQ(test::ReadWholeFile(folder.File("target")), "abc");
  io.CutPower();
  EXPECT_EQ(test::ReadWholeFile(folder.File("old")), "old+safe");
  EXPECT_EQ(test::ReadWholeFile(folder.File("target")), "before");
  EXPECT_EQ(folder.Names(), (std::vector<std::string>{"old", "target"}));
}

}  // namespace
