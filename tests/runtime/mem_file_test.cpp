#include "cms/runtime/mem_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "tests/support/faulty_file_io.h"
#include "tests/support/process_state.h"

namespace {

constexpr long kSpan = 2'097'152;

std::string Noise(std::size_t size) {
  std::mt19937 random(7);
  std::string text(size, '\0');
  for (char& c : text) {
    c = static_cast<char>(random());
  }
  return text;
}

TEST(MemFile, ASmallFileIsReadWholeAndCountsBytes) {
  const test::TemporaryFolder folder;
  const std::string content = Noise(kSpan);
  test::WriteWholeFile(folder.File("f"), content);
  const auto descriptors = test::OpenDescriptors();
  _MEMFILE* file = fload(folder.SystemFile("f").c_str(), L"rb");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
  test::WriteWholeFile(folder.File("f"), "gone");  // nobody reads it any more

  char buffer[16];
  EXPECT_EQ(fseek(file, -10, SEEK_END), 0);
  EXPECT_EQ(fread(buffer, 4, 3, file), 10u);  // bytes, not items
  EXPECT_EQ(std::string(buffer, 10), content.substr(kSpan - 10));
  EXPECT_NE(feof(file), 0);
  EXPECT_EQ(fread(buffer, 1, 1, file), 0u);
  EXPECT_EQ(fseek(file, 5, SEEK_SET), 0);
  EXPECT_EQ(fseek(file, 2, SEEK_CUR), 0);
  EXPECT_EQ(ftell(file), 7);
  EXPECT_EQ(fread(buffer, 1, 1, file), 1u);
  EXPECT_EQ(buffer[0], content[7]);
  // Positions outside the file are gone to, and nothing is read there.
  for (const long outside : {-1L, kSpan, kSpan + 100, 0x7FFFFFFFFFFFFFFFL}) {
    EXPECT_EQ(fseek(file, outside, SEEK_SET), 0);
    EXPECT_EQ(ftell(file), outside);
    EXPECT_EQ(fread(buffer, 1, 1, file), 0u);
  }
  EXPECT_EQ(fseek(file, 0x7FFFFFFFFFFFFFFFL, SEEK_CUR), 0);  // cannot be counted: nothing moves
  fseek(file, -2, SEEK_END);
  EXPECT_EQ(fread(buffer, static_cast<std::size_t>(-1), 16, file), 2u);  // the product overflows
  EXPECT_EQ(fclose(file), 0);
}

TEST(MemFile, EmptyAndLargeFilesAreStreams) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("empty"), "");
  test::WriteWholeFile(folder.File("large"), Noise(kSpan + 1));
  const auto descriptors = test::OpenDescriptors();
  char buffer[16];
  _MEMFILE* empty = fload(folder.SystemFile("empty").c_str(), L"rb");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(test::OpenDescriptors(), descriptors + 1);
  EXPECT_EQ(feof(empty), 0);  // a stream knows only after it tried
  EXPECT_EQ(fread(buffer, 1, 1, empty), 0u);
  EXPECT_NE(feof(empty), 0);
  fclose(empty);
  _MEMFILE* large = fload(folder.SystemFile("large").c_str(), L"rb");
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(fread(buffer, 4, 3, large), 3u);  // items
  EXPECT_EQ(ftell(large), 12);
  EXPECT_EQ(fseek(large, -1, SEEK_SET), -1);
  fclose(large);
  EXPECT_EQ(fload(folder.SystemFile("none").c_str(), L"rb"), nullptr);
  EXPECT_EQ(fload(folder.SystemFile("").c_str(), L"rb"), nullptr);  // a directory
  EXPECT_EQ(fload(folder.SystemFile("large").c_str(), L"?"), nullptr);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
}

// Seeks and reads at random against the content itself.
TEST(MemPartialFile, ReadsLikeTheFileItself) {
  const test::TemporaryFolder folder;
  const std::string content = Noise(3 * kSpan + 12345);
  test::WriteWholeFile(folder.File("f"), content);
  _MEMPARTIALFILE* file = pfload(folder.SystemFile("f").c_str(), L"rb");
  ASSERT_NE(file, nullptr);
  std::mt19937 random(11);
  std::string buffer(kSpan + 1, '\0');
  for (int i = 0; i < 60; ++i) {
    if (i % 7 == 3) {
      fbypass(file, i % 2);
      fbypass(file, 0);
      fdebug(file, i % 2);
    }
    const auto at = static_cast<long>(random() % (content.size() + 100));
    const std::size_t size = i % 5 == 0 ? static_cast<std::size_t>(kSpan) : random() % 70'000;
    ASSERT_EQ(fseek(file, at, SEEK_SET), 0);
    const std::size_t got = fread(buffer.data(), 1, size, file);
    const auto begin = std::min(static_cast<std::size_t>(at), content.size());
    ASSERT_EQ(got, std::min(size, content.size() - begin));
    ASSERT_EQ(content.compare(begin, got, buffer, 0, got), 0);
    ASSERT_EQ(ftell(file), at + static_cast<long>(got));
    ASSERT_EQ(feof(file) != 0, begin + got == content.size());
  }
  fseek(file, 0, SEEK_SET);
  EXPECT_EQ(fread(buffer.data(), 1, kSpan + 1, file), 0u);  // more than the span
  EXPECT_EQ(ftell(file), 0);
  EXPECT_EQ(fseek(file, -1, SEEK_SET), -1);
  EXPECT_EQ(fread(buffer.data(), 4, 3, file), 12u);  // bytes
  fbypass(file, 1);
  EXPECT_EQ(ftell(file), 12);
  EXPECT_EQ(fread(buffer.data(), 4, 3, file), 3u);  // items
  EXPECT_EQ(content.compare(12, 12, buffer, 0, 12), 0);
  fbypass(file, 0);
  EXPECT_EQ(ftell(file), 24);
  std::filesystem::resize_file(folder.File("f"), 30);  // it shrinks under the reader
  fseek(file, 2 * kSpan, SEEK_SET);
  EXPECT_EQ(fread(buffer.data(), 1, 100, file), 0u);
  fclose(file);
  EXPECT_EQ(pfload(folder.SystemFile("none").c_str(), L"rb"), nullptr);
}

}  // namespace
