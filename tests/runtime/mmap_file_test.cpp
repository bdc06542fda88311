#include "cms/runtime/mmap_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "cms/runtime/native_path.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/process_state.h"

namespace {

std::string Text(int error, const char* what) {
  return std::string(what) + ":" + std::to_string(error);
}

template <typename Call>
std::string ThrownBy(Call call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing";
}

TEST(MMapFile, MapsAFileForReadingAndWriting) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("f"), "0123456789");
  const auto descriptors = test::OpenDescriptors();
  MMapFile file;
  auto* bytes = static_cast<char*>(file.FileOpen(folder.SystemFile("f"), 0));
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::string(bytes, 10), "0123456789");
  EXPECT_EQ(file.MappedSize(), 10u);
  bytes[0] = 'x';
  EXPECT_EQ(file.FileOpen(folder.SystemFile("f"), 0), nullptr);  // something is open
  EXPECT_EQ(file.MemOpen(L"m", 10), nullptr);
  MMapFile other;
  EXPECT_EQ(ThrownBy([&] { other.FileOpen(folder.SystemFile("f"), 0); }),
            Text(EWOULDBLOCK, "CreateFile"));  // not shared
  file.Close();
  EXPECT_TRUE(file.View() == nullptr && file.Path().empty() && file.FileSize() == 0);
  EXPECT_EQ(test::ReadWholeFile(folder.File("f")), "x123456789");
  ASSERT_NE(other.FileOpen(folder.SystemFile("f"), 4), nullptr);
  EXPECT_EQ(other.MappedSize(), 4u);
  other.Close();
  bytes = static_cast<char*>(other.FileOpen(folder.SystemFile("f"), 5000));  // grows
  bytes[4999] = 'y';
  other.Close();
  EXPECT_EQ(test::ReadWholeFile(folder.File("f")).size(), 5000u);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
}

TEST(MMapFile, FailuresAreThrownByNameAndNumber) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("empty"), "");
  test::WriteWholeFile(folder.File("limit"), "");
  const auto descriptors = test::OpenDescriptors();
  MMapFile file;
  const auto open = [&](const char* name, std::uint64_t size) {
    return ThrownBy([&] { file.FileOpen(folder.SystemFile(name), size); });
  };
  EXPECT_EQ(open("none", 0), Text(ENOENT, "CreateFile"));
  EXPECT_EQ(open("empty", 0), Text(EINVAL, "CreateFileMapping"));
  std::filesystem::resize_file(folder.File("limit"), MMapFile::kMaximumFileSize + 1);
  EXPECT_EQ(open("limit", 10), "file size too large");
  std::filesystem::resize_file(folder.File("limit"), MMapFile::kMaximumFileSize);
  EXPECT_EQ(open("limit", 0), "nothing");
  EXPECT_EQ(file.MappedSize(), MMapFile::kMaximumFileSize);
  file.Close();
  EXPECT_EQ(ThrownBy([&] { file.MemOpen(L"none", 0); }), Text(EINVAL, "CreateFile"));
  EXPECT_EQ(ThrownBy([&] { file.MemOpen(L"x", std::uint64_t{1} << 62); }),
            Text(ENOMEM, "MapViewOfFile"));
  EXPECT_EQ(file.View(), nullptr);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
}

// Writing into a mapping that has no place on the disk would end the process.
TEST(MMapFile, AMappingLargerThanTheDiskIsRefusedAndLeavesTheFileAsItWas) {
  struct statfs memory {};
  if (statfs("/dev/shm", &memory) != 0 || memory.f_type != TMPFS_MAGIC || memory.f_blocks == 0) {
    GTEST_SKIP() << "no file system whose size can be exceeded without filling it";
  }
  const std::string path = "/dev/shm/orvantaMmap_" + std::to_string(getpid());
  test::WriteWholeFile(path, "0123456789");
  MMapFile file;
  const auto beyond =
      std::uint64_t{memory.f_blocks + 1} * static_cast<std::uint64_t>(memory.f_bsize);
  EXPECT_EQ(ThrownBy([&] { file.FileOpen(cms::SystemPath(path), beyond); }),
            Text(ENOSPC, "CreateFileMapping"));
  EXPECT_EQ(test::ReadWholeFile(path), "0123456789");
  std::filesystem::remove(path);
}

TEST(MMapFile, ABlockOfMemoryIsZeroAndItsOwn) {
  MMapFile a;
  MMapFile b;
  auto* first = static_cast<char*>(a.MemOpen(L"block", 10'000));
  auto* second = static_cast<char*>(b.MemOpen(L"block", 10'000));
  ASSERT_TRUE(first != nullptr && second != nullptr);
  first[9'999] = 1;
  EXPECT_EQ(second[9'999], 0);
  EXPECT_EQ(a.MappedSize(), 10'000u);
}

}  // namespace
