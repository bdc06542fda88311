#include "cms/runtime/circular_log.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <numeric>
#include <thread>

#include "tests/support/faulty_file_io.h"

namespace {

constexpr std::uint32_t kSmall = cms::CCircularLogWriter::kMinimumSize;

std::unique_ptr<cms::CCircularLogWriter> Open(const std::string& path, int expected = 0,
                                              std::uint32_t size = kSmall) {
  int error = -1;
  auto writer = cms::CCircularLogWriter::Open(path, size, error);
  EXPECT_EQ(error, expected);
  EXPECT_EQ(writer != nullptr, expected == 0);
  return writer;
}

std::vector<cms::CircularLogEntry> Entries(const std::string& path) {
  std::vector<cms::CircularLogEntry> entries;
  EXPECT_TRUE(cms::ReadCircularLog(path, entries));
  for (std::size_t i = 1; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].number, entries[i - 1].number + 1) << "a gap";
  }
  return entries;
}

}  // namespace

TEST(CircularLog, KeepsTheNewestAndGoesOnWhereItWas) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("log");
  constexpr int kEntries = 3000;
  for (int i = 0; i < kEntries; ++i) {  // opened anew at every possible place of the ring
    auto writer = Open(path);
    ASSERT_TRUE(writer->Write("entry " + std::to_string(i) + std::string(i % 97, '.')));
  }
  EXPECT_LE(test::ReadWholeFile(path).size(), kSmall);
  const auto entries = Entries(path);
  ASSERT_GT(entries.size(), 100U);
  EXPECT_EQ(entries.back().number, std::uint64_t{kEntries - 1});
  for (const auto& each : entries) {
    EXPECT_TRUE(each.text.starts_with("entry " + std::to_string(each.number)));
  }
  auto writer = Open(path, 0, 10 * kSmall);
  Open(path, EWOULDBLOCK);
  for (int i = 0; i < kEntries; ++i) {
    writer->Write(std::string(100, 'x'));
  }
  EXPECT_LE(test::ReadWholeFile(path).size(), kSmall) << "an old log keeps its size";
}

TEST(CircularLog, EntriesAreLinesWhateverTheTextSays) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("log");
  {
    auto writer = Open(path);
    writer->Write("two\nlines\t\x1b[31m");
    writer->Write(std::string(cms::CCircularLogWriter::kLongestText - 1, 'x') + "\u00e9");
    writer->Write("");
  }
  const auto entries = Entries(path);
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0].text, "two\\nlines\\t\\x1b[31m");
  EXPECT_EQ(entries[1].text, std::string(cms::CCircularLogWriter::kLongestText - 1, 'x'));
  EXPECT_EQ(entries[2].text, "");

  // A text that is itself a valid entry with a huge number, cut free by the ring at every offset.
  std::string forged;
  {
    auto writer = Open(folder.File("other"));
    writer->Write("forged");
    forged = test::ReadWholeFile(folder.File("other")).substr(64);
    forged = forged.substr(0, forged.find('\n'));
  }
  auto writer = Open(path);
  std::vector<cms::CircularLogEntry> entriesNow;
  for (unsigned i = 0; i < 3000; ++i) {
    writer->Write(forged + std::string(i * i % 101, ' ') + forged);
    ASSERT_TRUE(cms::ReadCircularLog(path, entriesNow));
    for (const auto& each : entriesNow) {
      ASSERT_NE(each.text, "forged");
    }
  }
}

TEST(CircularLog, LeavesForeignFilesAlone) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("log");
  std::vector<cms::CircularLogEntry> entries;
  EXPECT_FALSE(cms::ReadCircularLog(path, entries));
  Open(path)->Write("kept");
  const std::string log = test::ReadWholeFile(path);
  for (const std::string& foreign : {std::string("my diary"), std::string(100'000, '\n'),
                                     "orvanta circular log 2" + log.substr(22)}) {
    test::WriteWholeFile(path, foreign);
    Open(path, EEXIST);
    EXPECT_EQ(test::ReadWholeFile(path), foreign);
    EXPECT_FALSE(cms::ReadCircularLog(path, entries));
  }
  for (std::size_t size = 0; size < log.size(); ++size) {  // torn at every byte
    test::WriteWholeFile(path, log.substr(0, size));
    ASSERT_TRUE(Open(path)->Write("new"));
    EXPECT_EQ(Entries(path).back().text, "new");
  }
}

TEST(CircularLog, AFullDiskLosesOnlyWhatDidNotFit) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("log");
  test::FaultyFileIo io;
  cms::ReplaceFileIo(&io);
  {
    auto writer = Open(path);
    EXPECT_TRUE(writer->Write("before"));
    io.LimitSpace(10);
    EXPECT_FALSE(writer->Write("torn"));
    io.LimitSpace(test::FaultyFileIo::kNever);
    EXPECT_TRUE(writer->Write("behind"));
  }
  cms::ReplaceFileIo(nullptr);
  const auto entries = Entries(path);
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].text, "before");
  EXPECT_EQ(entries[1].text, "behind");
}

TEST(CircularLog, AKilledProcessLosesNothingThatWasWritten) {
  constexpr int kThreads = 4;
  using Counters = std::array<std::atomic<int>, kThreads>;
  void* const shared =
      mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& written = *new (shared) Counters{};
  const test::TemporaryFolder folder;
  const std::string path = folder.File("log");
  for (unsigned round = 1; round <= 5; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      int error = 0;
      auto writer = cms::CCircularLogWriter::Open(path, 4 * kSmall, error);
      std::array<std::thread, kThreads> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads[static_cast<std::size_t>(t)] = std::thread([&, t] {
          auto& count = written[static_cast<std::size_t>(t)];
          for (;;) {
            writer->Write("from " + std::to_string(t));
            ++count;
          }
        });
      }
      pause();
    }
    const int enough = static_cast<int>(round * 700);
    while (written[0] < enough || written[kThreads - 1] < enough) {
      usleep(1000);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // Each acknowledged entry is there, or was until the ring came round: numbers have no gaps.
    const std::uint64_t acknowledged = std::accumulate(
        written.begin(), written.end(), std::uint64_t{0},
        [](std::uint64_t sum, const auto& count) { return sum + static_cast<unsigned>(count); });
    const auto entries = Entries(path);
    ASSERT_GT(entries.size(), 100U);
    EXPECT_GE(entries.back().number + 1, acknowledged);
    EXPECT_LE(entries.back().number + 1, acknowledged + std::uint64_t{kThreads} * round);
    ASSERT_NE(Open(path), nullptr);
  }
  munmap(shared, sizeof(Counters));
}
