// Several threads and several processes on the same databases.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cms/exports/database_exports.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "tests/recording/database_bytes.h"

namespace {

using test::ReadWholeFile;
using test::RecordBytes;
using test::SpanBytes;
using test::WriteWholeFile;

constexpr const char* kSharedList = "rec/RecordDB";

bool Store(int site, int file) {
  FX_RecordDBListWriter writer;
  writer.SetDBListPath(L"rec");
  const std::wstring name =
      L"Rec_Site" + std::to_wstring(site) + L"_" + std::to_wstring(file) + L".drv";
  writer.InitialRecordDBInfo(name.c_str(), L"", L"", 0);
  writer.SetRecordTime(1000 * site + file + 1);
  return writer.WriteDBInfoIntoList();
}

// Site number -> its records' times, in the order of the list.
std::map<std::uint64_t, std::vector<std::int64_t>> StoredTimes() {
  std::map<std::uint64_t, std::vector<std::int64_t>> stored;
  const std::string list = ReadWholeFile(kSharedList);
  EXPECT_EQ(list.size() % test::kRecordBytes, 0u);
  for (std::size_t at = 0; at + test::kRecordBytes <= list.size(); at += test::kRecordBytes) {
    stored[test::NumberAt(list, at + 716, 4)].push_back(test::TimeAt(list, at + 720));
  }
  return stored;
}

// An advisory lock as another process would hold it.
class ForeignLock {
 public:
  explicit ForeignLock(const std::string& path) : handle_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    EXPECT_EQ(flock(handle_, LOCK_EX | LOCK_NB), 0);
  }
  ~ForeignLock() { close(handle_); }
  ForeignLock(const ForeignLock&) = delete;
  ForeignLock& operator=(const ForeignLock&) = delete;

 private:
  int handle_;
};

TEST(DatabaseSharing, ThreadsRecordSearchAndMaintain) {
  const test::WorkFolder work;
  constexpr int kSites = 4;
  constexpr int kFiles = 40;
  WriteWholeFile(kSharedList, RecordBytes({u"rec\\keep.drv", 1, 1, u"", u"", 0, 0, 0, 99}));
  FX_EventDBListWriter events;
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int site = 1; site <= kSites; ++site) {
    threads.emplace_back([site, &events] {
      const auto channel = static_cast<unsigned>(site);
      for (int file = 0; file < kFiles; ++file) {
        EXPECT_TRUE(Store(site, file));
        events.InitialEventDBInfo(L"Rec_Site1_1.drv", channel, 1, 0, 0, L"", L"");
        events.SetRecordTime(1000 + file, channel);
        events.SetRecordTime(2000, channel % kSites + 1);  // a neighbour's, if it has one
        EXPECT_TRUE(events.WriteDBInfoIntoList(channel));
        CRecFolderDBWriter().WriterRecFolderDB(0, std::to_wstring(file).c_str());
      }
    });
  }
  std::thread maintaining([&] {
    while (!stop) {
      std::int64_t start = 0;
      std::int64_t end = 0;
      EXPECT_TRUE(GetTimeFromSubFolderDB(L"rec", &start, &end));
      EXPECT_EQ(start, 1);
      EXPECT_EQ(AddDBInfoFromList(L"rec", L"keep", L"extra.drv", 2, 2), 1);
      EXPECT_EQ(ModifyDBInfoTime(L"rec", L"extra", 2, 3), 1);
      EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"extra"), 1);
      EXPECT_EQ(MakeSubRecFolderDB(L"rec"), 1);
      for (const auto& row : cms::ReadEventList(0).rows) {
        EXPECT_GE(row.start, 1000);
      }
    }
  });
  for (auto& thread : threads) {
    thread.join();
  }
  stop = true;
  maintaining.join();
  const auto stored = StoredTimes();
  EXPECT_EQ(stored.size(), kSites + 1u);
  for (int site = 1; site <= kSites; ++site) {
    const auto& times = stored.at(static_cast<std::uint64_t>(site));
    ASSERT_EQ(times.size(), std::size_t{kFiles});
    for (int file = 0; file < kFiles; ++file) {
      EXPECT_EQ(times[static_cast<std::size_t>(file)], 1000 * site + file + 1);
    }
  }
  EXPECT_EQ(ReadWholeFile("rec.DB"), SpanBytes(1, 1000 * kSites + kFiles));
  EXPECT_EQ(ReadWholeFile(work.Beside("EventList0")).size(), kSites * kFiles * test::kEventBytes);
  EXPECT_EQ(ReadWholeFile(work.Beside("RecFolderDB0")).size(), kFiles * test::kFolderBytes);
}

// Processes that record into one folder, while one of them removes records by writing the list
// anew: nobody's records are lost, doubled or torn.
TEST(DatabaseSharing, ProcessesRecordIntoOneFolder) {
  const test::WorkFolder work;
  constexpr int kProcesses = 3;
  constexpr int kFiles = 60;
  std::string doomed;
  for (int i = 0; i < kFiles; ++i) {
    doomed += RecordBytes({u"rec\\doomed.drv", 7, 8, u"", u"", 0, 0, 0, 77});
  }
  WriteWholeFile(kSharedList, doomed);
  std::vector<pid_t> children;
  for (int process = 1; process <= kProcesses + 1; ++process) {
    const pid_t child = fork();
    if (child == 0) {
      bool good = true;
      for (int file = 0; file < kFiles; ++file) {
        if (process <= kProcesses) {
          good = Store(process, file) && good;
          CRecFolderDBWriter().WriterRecFolderDB(0, std::to_wstring(file).c_str());
        } else {
          good = RemoveDBInfoFromList(L"rec", L"doomed") == 1 && good;
        }
      }
      _exit(good ? 0 : 1);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const auto stored = StoredTimes();
  EXPECT_EQ(stored.size(), std::size_t{kProcesses});  // and none of the removed ones
  for (const auto& [site, times] : stored) {
    ASSERT_EQ(times.size(), std::size_t{kFiles}) << site;
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  }
  EXPECT_EQ(ReadWholeFile("rec.DB"), SpanBytes(1001, 1000 * kProcesses + kFiles));
  EXPECT_EQ(ReadWholeFile(work.Beside("RecFolderDB0")).size(), kFiles * test::kFolderBytes);
}

// A lock that is held for a moment is waited for by what changes the list, and by no reader.
TEST(DatabaseSharing, ALockThatIsReleasedIsWaitedFor) {
  const test::WorkFolder work;
  WriteWholeFile(kSharedList, RecordBytes({u"rec\\a.drv", 10, 20}));
  std::atomic<bool> removed{false};
  auto lock = std::make_unique<ForeignLock>(kSharedList);
  std::thread removing([&] {
    EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a"), 1);
    removed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(removed);
  EXPECT_EQ(ReadWholeFile(kSharedList).size(), test::kRecordBytes);
  lock.reset();
  removing.join();
  EXPECT_EQ(ReadWholeFile(kSharedList), "");
}

// One that is never released keeps nobody from reading and recording, but from removing.
TEST(DatabaseSharing, ALockThatStays) {
  const test::WorkFolder work;
  const std::string a = RecordBytes({u"rec\\a.drv", 10, 20});
  WriteWholeFile(kSharedList, a);
  const ForeignLock lock(kSharedList);
  std::int64_t start = 0;
  EXPECT_TRUE(GetTimeFromSubFolderDB(L"rec", &start, nullptr));
  EXPECT_EQ(start, 10);
  EXPECT_EQ(cms::ReadRecordList(L"rec").rows.size(), 1u);
  EXPECT_TRUE(Store(1, 4));
  EXPECT_EQ(StoredTimes()[1], (std::vector<std::int64_t>{10, 1005}));
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a"), 0);
  EXPECT_EQ(ReadWholeFile(kSharedList).substr(0, test::kRecordBytes), a);
}

}  // namespace
