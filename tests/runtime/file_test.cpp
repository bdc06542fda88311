#include "cms/runtime/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "cms/runtime/native_path.h"
#include "tests/support/faulty_file_io.h"

namespace {

TEST(File, TellsWhatLiesAtAPath) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("f"), "12345");
  test::WriteWholeFile(folder.File(".dot"), "");
  const struct {
    std::wstring path;
    bool exists, directory, file, hidden;
    std::uint64_t length;
  } cases[] = {
      {folder.SystemFile("f"), true, false, true, false, 5},
      {folder.SystemFile(".dot"), true, false, true, true, 0},
      {folder.SystemFile(""), true, true, false, false, 0},
      {folder.SystemFile(".gone"), false, false, false, false, 0},
      {folder.SystemFile("."), true, true, false, false, 0},
      {L"C:", true, true, false, false, 0},
      {L"", false, false, false, false, 0},
  };
  for (const auto& c : cases) {
    const File file(c.path);
    SCOPED_TRACE(cms::NativePath(c.path));
    EXPECT_EQ(file.exists(), c.exists);
    EXPECT_EQ(file.isDirectory(), c.directory);
    EXPECT_EQ(file.isFile(), c.file);
    EXPECT_EQ(file.isHidden(), c.hidden);
    EXPECT_EQ(file.length(), c.length);
    EXPECT_EQ(file.lastModified() != 0, c.exists);
  }
  const std::chrono::sys_seconds day = std::chrono::sys_days(std::chrono::year(2024) / 2 / 29);
  const auto when = std::chrono::file_clock::from_sys(day);
  std::filesystem::last_write_time(folder.File("f"), when);
  EXPECT_EQ(File(folder.SystemFile("f")).lastModified(), 133'536'384'000'000'000u);
  // In front of 1970, and not on a whole tick: the tick that had begun.
  const timespec early[] = {{-1, 999'999'950}, {-1, 999'999'950}};
  ASSERT_EQ(utimensat(AT_FDCWD, folder.File("f").c_str(), early, 0), 0);
  EXPECT_EQ(File(folder.SystemFile("f")).lastModified(), 116'444'735'999'999'999u);
}

TEST(File, CreatesFilesAndFoldersAndRemovesThem) {
  const test::TemporaryFolder folder;
  const File file(folder.SystemFile("a\\b/c\\x.drv"));
  EXPECT_TRUE(file.createNewFile());
  EXPECT_TRUE(file.isFile());
  EXPECT_FALSE(file.createNewFile());
  EXPECT_TRUE(File(folder.SystemFile("a\\b")).mkdirs());
  EXPECT_FALSE(File(folder.SystemFile("a\\b")).mkdir());
  EXPECT_FALSE(file.mkdirs());                                          // a file has the name
  EXPECT_FALSE(File(folder.SystemFile("a\\b\\c\\x.drv\\y")).mkdirs());  // a file is in the way
  EXPECT_FALSE(File(folder.SystemFile("a\\b\\c\\x.drv\\y")).createNewFile());
  EXPECT_TRUE(File(folder.SystemFile("d\\e\\")).mkdirs());
  EXPECT_FALSE(File(folder.SystemFile("n\\m")).mkdir());
  EXPECT_FALSE(File(folder.SystemFile("a\\b\\c")).deleteFile());  // not empty
  EXPECT_TRUE(file.deleteFile());
  EXPECT_TRUE(File(folder.SystemFile("a\\b\\c")).deleteFile());
  EXPECT_FALSE(file.deleteFile());
  EXPECT_FALSE(File(L"").mkdirs());
  // Of a link the link goes, not what it leads to.
  ASSERT_EQ(symlink(folder.File("d").c_str(), folder.File("link").c_str()), 0);
  EXPECT_TRUE(File(folder.SystemFile("link")).deleteFile());
  EXPECT_FALSE(File(folder.SystemFile("link")).exists());
  EXPECT_TRUE(File(folder.SystemFile("d\\e")).isDirectory());
}

// Whatever fails, the answer is false and nothing is left open.
TEST(File, CreatingFailsCleanlyAtEveryOperation) {
  for (std::uint64_t n = 0;; ++n) {
    const test::TemporaryFolder folder;
    test::FaultyFileIo io;
    cms::ReplaceFileIo(&io);
    io.FailOperation(n, EIO);
    const bool created = File(folder.SystemFile("a\\b\\x")).createNewFile();
    const bool reached = io.Operations() > n;
    cms::ReplaceFileIo(nullptr);
    EXPECT_EQ(created, File(folder.SystemFile("a\\b\\x")).exists()) << n;
    EXPECT_EQ(io.OpenHandles(), 0);
    if (!reached) {
      EXPECT_TRUE(created);
      EXPECT_GE(n, 4u);
      break;
    }
  }
}

}  // namespace
