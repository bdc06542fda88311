#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/runtime/native_path.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/recording_reader.h"
#include "tests/support/search_oracle.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;
using test::OracleAnswer;
using test::OracleQuestion;
using test::ReadWholeFile;
using test::WriteWholeFile;

constexpr std::int64_t kFebruary = 1'706'745'600;  // 2024-02-01T00:00:00Z
constexpr std::int64_t kDay = 86'400;
constexpr OracleQuestion kAllTime{0, LocalPBSearchEngine::kFullRangeStart,
                                  LocalPBSearchEngine::kFullRangeEnd};

void Append(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

struct Event {
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::uint32_t site = 1;
  unsigned type = 1;
  unsigned cms = 0;
  unsigned channel = 0;
  unsigned preAlarm = 0;
};

std::string EventBytes(const Event& event) {
  std::string bytes(test::kEventBytes, '\0');
  test::PutText(bytes, 0, u"Lobby");
  test::PutNumber(bytes, 194, 1, event.cms | 0x50);
  test::PutNumber(bytes, 196, 2, event.channel);
  test::PutNumber(bytes, 198, 1, event.type);
  test::PutNumber(bytes, 202, 1, event.preAlarm);
  test::PutNumber(bytes, 208, 4, event.site);
  test::PutNumber(bytes, 216, 8, static_cast<std::uint64_t>(event.start));
  test::PutNumber(bytes, 224, 8, static_cast<std::uint64_t>(event.end));
  return bytes;
}

void ExpectSame(const LocalPBSearchEngine& engine, const OracleAnswer& answer) {
  std::vector<test::OracleSpan> spans;
  LocalPBSearchEngine::SpanIterator at;
  LocalPBSearchEngine::SpanIterator last;
  for (engine.getSearchResultByInterval(at, last); at != last; ++at) {
    auto& span = spans.emplace_back(test::OracleSpan{at->siteNumber, at->start, at->end, {}});
    for (const auto& record : at->records) {
      span.records.push_back(
          {cms::NativePath(record.GetFilenameW()), record.GetStartTime(), record.GetEndTime()});
    }
  }
  EXPECT_TRUE(spans == answer.spans) << spans.size() << " of " << answer.spans.size();
  std::vector<test::OracleEvent> events;
  for (const auto& event : engine.getEventTimes()) {
    events.push_back({event.siteNumber, event.kind, event.channel, event.start, event.end});
  }
  EXPECT_TRUE(events == answer.events) << events.size() << " of " << answer.events.size();
  EXPECT_TRUE(engine.hasReadEverything());
}

std::vector<int> MarkedDays(const LocalPBSearchEngine& engine) {
  std::vector<int> days;
  for (int day = 0; day < 32; ++day) {
    if (engine.getMonthInfo()[static_cast<std::size_t>(day)] != 0) {
      days.push_back(day);
    }
  }
  return days;
}

void Exchange(const std::string& one, const std::string& other) {
  std::error_code ignored;  // what is not there changes no places
  fs::rename(one, "exchanged", ignored);
  fs::rename(other, one, ignored);
  fs::rename("exchanged", other, ignored);
}

// Folders a/ and b/ with recordings in folders of theirs, listed for the CMS numbers 0 and 3.
class RandomDatabases {
 public:
  explicit RandomDatabases(unsigned seed) : random_(seed) {
    for (const char* folder : {"a/1", "a/2", "b/1", "b/none", "c/1"}) {
      fs::create_directories(folder);
    }
    WriteWholeFile("a/file", "no folder");
    fs::create_directory_symlink("../c/1", "b/link");
    const auto entry = [](const char16_t* folder) { return test::FolderBytes(folder); };
    WriteWholeFile("../RecFolderDB0", entry(u"a") + entry(u"missing") + entry(u"b") + "torn");
    WriteWholeFile("../RecFolderDB3", entry(u"b"));
    for (int i = 0; i < 60; ++i) {
      Change();
    }
  }
  // One thing that recorders, retention, maintenance and accidents do.
  void Change() {
    const std::string folder = Folder();
    const std::string list = folder + "/RecordDB";
    switch (Below(22)) {
      case 0:
        fs::remove(folder + "/" + Name(), ignored_);
        break;
      case 1:
        WriteWholeFile(folder + "/" + Name(), "");
        break;
      case 2:
        Append(list, std::string(static_cast<std::size_t>(Below(736)), 'x'));
        break;
      case 3:
        if (Below(10) == 0) {
          fs::remove(list, ignored_);
        }
        break;
      case 4:
        fs::remove_all("a/3");
        fs::create_directories("a/3");
        break;
      case 5:
        fs::rename(Below(4) == 0 ? "a/moved" : folder, "a/3/moved", ignored_);
        fs::rename("a/moved", folder, ignored_);
        fs::rename("a/3/moved", "a/moved", ignored_);
        break;
      case 6:
        Exchange(Below(3) == 0 ? "a" : folder, Below(3) == 0 ? "b" : Folder());
        break;
      case 7:
        ChangeList(list);
        break;
      case 8:
      case 9:
      case 10:
        AddEvent();
        break;
      default:
        AddRecord(folder);
    }
  }

  OracleQuestion Question() {
    const std::int64_t from = Moment();
    return {Below(5) == 0 ? 3u : 0u, from, from + Below(Below(3) == 0 ? 60 : 3)};
  }

 private:
  std::int64_t Below(int limit) {
    return static_cast<std::int64_t>(random_() % static_cast<unsigned>(limit));
  }
  // In one of three crowded minutes of February, two weeks apart.
  std::int64_t Moment() { return kFebruary + Below(3) * 14 * kDay + Below(60) - 10; }
  std::string Name() { return std::to_string(Below(12)) + ".drv"; }
  std::string Folder() {
    static constexpr const char* kFolders[] = {"a/1", "a/2", "b/1", "c/1"};
    return kFolders[Below(4)];
  }

  // What happens to a list besides growing.
  void ChangeList(const std::string& list) {
    const std::string content = ReadWholeFile(list);
    switch (Below(6)) {
      case 0:  // repaired in place
        if (content.size() >= test::kRecordBytes) {
          std::fstream(list, std::ios::binary | std::ios::in | std::ios::out)
              .seekp(728)
              .put(static_cast<char>(Below(256)));
        }
        break;
      case 1:  // records removed
        WriteWholeFile("list.tmp", content.substr(0, content.size() / 2));
        fs::rename("list.tmp", list, ignored_);
        break;
      case 2:
        fs::resize_file(list, content.size() / 4 * 3, ignored_);
        break;
      case 3:  // removed and made again
        fs::remove(list, ignored_);
        WriteWholeFile(list, content + content.substr(0, content.size() / 736 * 736 / 2));
        break;
      case 4:  // another name for a list
        fs::remove(list, ignored_);
        fs::create_hard_link(Folder() + "/RecordDB", list, ignored_);
        break;
      default:
        if (list != "c/1/RecordDB") {
          fs::remove(list, ignored_);
          fs::create_symlink("../../c/1/RecordDB", list, ignored_);
        }
    }
  }

  void AddRecord(const std::string& folder) {
    const std::string name = Name();
    std::u16string path = fs::path(folder + "/" + name).u16string();
    std::replace(path.begin(), path.end(), u'/', u'\\');
    const std::int64_t start = Below(15) == 0 ? 0 : Moment();
    const std::int64_t end = Below(15) == 0 ? 0 : start + Below(8) - 1;
    Append(folder + "/RecordDB", test::RecordBytes({path, start, end, u"", u"", 0, 0, 0,
                                                    static_cast<std::uint32_t>(1 + Below(3))}));
    if (Below(3) != 0) {
      WriteWholeFile(folder + "/" + name, "");
    }
  }

  void AddEvent() {
    const std::int64_t start = Moment();
    const auto number = [&](int limit) { return static_cast<unsigned>(Below(limit)); };
    Append(Below(3) == 0 ? "../EventList3" : "../EventList0",
           EventBytes({start, start + Below(20), 1 + number(4), number(6), 3 * number(2), number(4),
                       number(6)}));
  }

  std::mt19937 random_;
  std::error_code ignored_;  // what is not there is not changed
};

// The clock is ahead of the files, so that everything that the engine may remember is remembered;
// file systems count time in steps, and changes are a step apart.
class RememberingClock {
 public:
  RememberingClock() { clock_.SetWall(std::time(nullptr) + 60); }
  void Step() const { std::this_thread::sleep_for(std::chrono::milliseconds(12)); }

 private:
  test::TestClock clock_;
};

// Two kinds of file systems: the disk's, whichever it is, and one in memory.
const char* const kVolumes[] = {"", "/dev/shm"};

void CompareWithOracle(unsigned seed) {
  SCOPED_TRACE(seed);
  const RememberingClock clock;
  const test::WorkFolder work(kVolumes[seed % 2]);
  RandomDatabases databases(seed);
  LocalPBSearchEngine engine;
  for (int round = 0; round < 25 && !testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE(round);
    for (int question = 0; question < 4; ++question) {
      const OracleQuestion asked = databases.Question();
      const OracleAnswer answer = test::AskOracle(asked);
      engine.setCMSInfo(asked.cms, 0);
      engine.searchByInterval(asked.from, asked.to);
      EXPECT_TRUE(engine.getEventTimes().empty());
      engine.loadEventList();
      ExpectSame(engine, answer);
    }
    const OracleQuestion month{0, kFebruary, kFebruary + 29 * kDay - 1, true};
    OracleAnswer answer = test::AskOracle(month);
    engine.setCMSInfo(0, 0);
    engine.setSearchYearAndMonth(2024, 2);
    engine.searchPlaybackInfoForMonth(true);
    ExpectSame(engine, answer);
    EXPECT_EQ(MarkedDays(engine), answer.days);
    engine.searchPlaybackInfoForMonth(false);
    EXPECT_EQ(MarkedDays(engine), answer.days);
    if (round % 5 == 4) {
      answer = test::AskOracle(kAllTime);
      engine.searchByInterval(kAllTime.from, kAllTime.to);
      engine.loadEventList();
      ExpectSame(engine, answer);
      EXPECT_EQ(ReadWholeFile("../EventList0"), answer.keptEvents);
    }
    clock.Step();
    for (int change = 0; change < 6; ++change) {
      databases.Change();
    }
  }
}

TEST(LocalSearch, AgreesWithASlowOracleWhileTheDatabasesChange) {
  for (unsigned seed = 0; seed < 4; ++seed) {
    CompareWithOracle(seed);
  }
}

// Lists grow and change places. Each record is of another day, and the last is asked for first: its
// list is not opened for that unless the change has been noticed.
void CompareAfterEachChange() {
  const RememberingClock clock;
  const test::WorkFolder work("/dev/shm");
  int day = 0;
  const auto grow = [&](const std::string& folder) {
    const std::int64_t start = kFebruary + day++ * kDay;
    Append(folder + "/RecordDB", test::RecordBytes({u"here.drv", start, start + 60}));
  };
  WriteWholeFile("here.drv", "");
  WriteWholeFile("../RecFolderDB0", test::FolderBytes(u"a") + test::FolderBytes(u"b"));
  fs::create_directories("outside/1");
  for (const char* folder : {"a/1", "a/2", "b/1", "b/2"}) {
    fs::create_directories(folder);
    grow(folder);
  }
  const std::function<void()> changes[] = {
      [&] { grow("a/1"); },
      [&] { fs::resize_file("a/1/RecordDB", 736); },
      [&] { grow("outside/1"), Exchange("a/1", "outside/1"); },
      [&] { grow("outside/1"), Exchange("a", "outside"); },
      [&] { grow("outside/2"), Exchange("a", "outside"); },
      [&] { grow("outside/1"), Exchange("a/1/RecordDB", "outside/1/RecordDB"); },
      [&] { fs::remove_all("a/2"); },
      [&] { fs::create_directory("a/2"); },
      [&] { grow("a/2"); },
      [&] { fs::rename("b/1", "outside/3"), fs::create_directory_symlink("../outside/3", "b/1"); },
      [&] { grow("outside/3"); },
      [&] { grow("outside/1"), Exchange("outside/1", "outside/3"); },
      [&] {
        fs::remove("b/2/RecordDB");
        fs::create_symlink("../../outside/1/RecordDB", "b/2/RecordDB");
      },
      [&] { grow("outside/1"); },
      [&] { fs::remove("b/2/RecordDB"), grow("b/2"); },
      [&] { fs::remove("a/2/RecordDB"), fs::create_hard_link("a/1/RecordDB", "a/2/RecordDB"); },
      [&] { grow("a/2"), fs::remove("a/1/RecordDB"), grow("a/1"); },
      [&] { grow("a/2"); },
  };
  LocalPBSearchEngine engine;
  int number = 0;
  for (const auto& change : changes) {
    SCOPED_TRACE(number++);
    clock.Step();
    change();
    for (int round = 0; round < 3; ++round) {
      for (int asked = day; asked >= 0; --asked) {
        const std::int64_t from = kFebruary + asked * kDay;
        engine.searchByInterval(from, from + 60);
        ExpectSame(engine, test::AskOracle({0, from, from + 60}));
      }
    }
  }
}

TEST(LocalSearch, AgreesWithASlowOracleAfterEachChange) {
  CompareAfterEachChange();
}

constexpr int kNotPossible = 77;

// The status for the parent: 0 when all was well. What is thrown ends the process.
int CompareWithLimit(const std::string& name, const std::string& limit) noexcept {
  if (unshare(CLONE_NEWUSER) != 0) {
    return kNotPossible;
  }
  WriteWholeFile("/proc/sys/user/" + name, limit);
  EXPECT_EQ(ReadWholeFile("/proc/sys/user/" + name), limit);
  CompareAfterEachChange();
  CompareWithOracle(4);
  return testing::Test::HasFailure() ? 1 : 0;
}

// In a process of its own, whose kernel grants next to no watches, or none.
TEST(LocalSearch, AgreesWhenFilesCannotBeWatched) {
  for (const bool some : {true, false}) {
    SCOPED_TRACE(some);
    const pid_t child = fork();
    if (child == 0) {
      _exit(some ? CompareWithLimit("max_inotify_watches", "2\n")
                 : CompareWithLimit("max_inotify_instances", "0\n"));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPossible) {
      GTEST_SKIP() << "no user namespace";
    }
    EXPECT_EQ(status, 0);
  }
}

// One site's recordings in rec/day of the working folder's databases.
class OneFolder {
 public:
  OneFolder() {
    fs::create_directories("rec/day");
    WriteWholeFile("../RecFolderDB0", test::FolderBytes(u"rec"));
  }
  void Record(std::int64_t start, std::int64_t end) {
    const std::string name = "rec/day/" + std::to_string(++count_) + ".drv";
    WriteWholeFile(name, "");
    Append("rec/day/RecordDB", test::RecordBytes({fs::path(name).u16string(), start, end}));
  }

 private:
  const test::WorkFolder work_;
  int count_ = 0;
};

// Neither asked for nor opened, however many there are, and seen when they change after all.
TEST(LocalSearch, ListsThatDoNotChangeAreLeftAlone) {
  constexpr int kLists = 100;
  constexpr std::uint64_t kFew = 15;  // for the folder list and what holds the folders
  const RememberingClock clock;
  const test::WorkFolder work("/dev/shm");
  WriteWholeFile("../RecFolderDB0", test::FolderBytes(u"rec"));
  WriteWholeFile("rec/0.drv", "");
  const std::string record = test::RecordBytes({u"rec\\0.drv", kFebruary, kFebruary + 60});
  for (int i = 0; i < kLists; ++i) {
    fs::create_directories("rec/" + std::to_string(i));
    WriteWholeFile("rec/" + std::to_string(i) + "/RecordDB", record);
  }
  test::FaultScope faults;
  LocalPBSearchEngine engine;
  const auto operations = [&](std::int64_t from) {
    const std::uint64_t before = faults.io.Operations();
    engine.searchByInterval(from, from + kDay);
    return faults.io.Operations() - before;
  };
  operations(kFebruary + kDay);
  EXPECT_GT(operations(kFebruary + kDay), kLists);
  EXPECT_LT(operations(kFebruary + kDay), kFew);
  Append("rec/7/RecordDB",
         test::RecordBytes({u"rec\\0.drv", kFebruary + kDay, kFebruary + 2 * kDay}));
  const pid_t child = fork();
  if (child == 0) {
    operations(kFebruary + kDay);  // what it learns is not taken from the parent
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_LT(operations(kFebruary + kDay), 2 * kFew);
  EXPECT_EQ(engine.getNormalPBInfo().size(), 1u);
}

void SearchAllTime(LocalPBSearchEngine& engine) {
  engine.searchByInterval(kAllTime.from, kAllTime.to);
  engine.loadEventList();
}

TEST(LocalSearch, DaysAreThoseOfTheStartInUtc) {
  OneFolder folder;
  folder.Record(kFebruary + 29 * kDay - 60, kFebruary + 29 * kDay + 600);  // into March
  folder.Record(kFebruary - 60, kFebruary + 60);                           // since January
  folder.Record(kFebruary + 5 * kDay, kFebruary + 5 * kDay);               // no length
  LocalPBSearchEngine engine;
  for (const bool details : {false, true}) {
    engine.setSearchYearAndMonth(2024, 2);
    engine.searchPlaybackInfoForMonth(details);
    EXPECT_EQ(MarkedDays(engine), std::vector<int>{29});
    EXPECT_EQ(engine.getNormalPBInfo().size(), details ? 2u : 0u);
    engine.setSearchYearAndMonth(2024, 3);
    engine.searchPlaybackInfoForMonth(details);
    EXPECT_EQ(MarkedDays(engine), std::vector<int>{});
    engine.setSearchYearAndMonth(2024, 13);
    engine.searchPlaybackInfoForMonth(details);
    EXPECT_TRUE(engine.getNormalPBInfo().empty());
  }
}

// The moments of a change and of a search are within one step of the file system's clock here.
TEST(LocalSearch, AFileThatGoesIsNoticedAtOnce) {
  OneFolder folder;
  LocalPBSearchEngine engine;
  for (int file = 1; file <= 30; ++file) {
    folder.Record(kFebruary, kFebruary + 10);
    engine.searchByInterval(kFebruary, kFebruary + kDay);
    ASSERT_EQ(engine.getNormalPBInfo().size(), 1u);
    fs::remove("rec/day/" + std::to_string(file) + ".drv");
    engine.searchByInterval(kFebruary, kFebruary + kDay);
    ASSERT_EQ(engine.getNormalPBInfo().size(), 0u);
  }
}

// A disk that does not answer while recordings on it are looked for holds no recorder.
TEST(LocalSearch, RecordersDoNotWaitForASearch) {
  OneFolder folder;
  fs::create_directories("away");
  WriteWholeFile("away/1.drv", "");
  Append("rec/day/RecordDB", test::RecordBytes({u"away\\1.drv", kFebruary, kFebruary + 10}));
  test::FaultScope faults;
  faults.io.HangAt("away");
  std::thread search([] {
    LocalPBSearchEngine engine;
    engine.searchByInterval(kFebruary, kFebruary + kDay);
    EXPECT_EQ(engine.getNormalPBInfo().size(), 1u);
  });
  EXPECT_TRUE(test::WaitFor([&] { return faults.io.Hanging() == 1; }));
  std::atomic<bool> stored = false;
  std::thread recorder([&] {
    fs::create_directories("rec/other");
    FX::FX_RecordDBListWriter writer;
    writer.SetDBListPath(L"rec\\other");
    writer.InitialRecordDBInfo(L"Rec_Site1_20240201000000.drv", L"", L"", 0);
    writer.SetRecordTime(kFebruary);
    writer.SetRecordTime(kFebruary + 10);
    stored = writer.WriteDBInfoIntoList();
  });
  EXPECT_TRUE(test::WaitFor([&] { return stored.load(); }));
  EXPECT_EQ(faults.io.Hanging(), 1);
  faults.io.HangAt("");
  search.join();
  recorder.join();
}

TEST(LocalSearch, OnlyASearchOverAllTimeRemovesEvents) {
  OneFolder folder;
  folder.Record(kFebruary, kFebruary + 100);
  const std::string shown = EventBytes({kFebruary + 50, kFebruary + 200, 1, 3, 0, 2, 80});
  const std::string gone = EventBytes({kFebruary + 100, kFebruary + 200});  // touches, no more
  const std::string foreign = EventBytes({1, 2, 9, 4, 3});
  WriteWholeFile("../EventList0", shown + gone + foreign + gone + "torn");
  LocalPBSearchEngine engine;
  engine.searchByInterval(0, kFebruary + kDay);
  engine.loadEventList();
  ASSERT_EQ(engine.getEventTimes().size(), 1u);
  const stLocalEvent event = engine.getEventTimes()[0];
  EXPECT_EQ(event.kind, stLocalEvent::kAlarm);
  EXPECT_EQ(event.channel, 3u);
  EXPECT_EQ(event.start, kFebruary);
  EXPECT_EQ(event.end, kFebruary + 100);
  EXPECT_EQ(event.siteName, "Lobby");
  EXPECT_EQ(event.groupNumber, 5u);
  EXPECT_EQ(ReadWholeFile("../EventList0").size(), 4 * test::kEventBytes + 4);
  SearchAllTime(engine);
  EXPECT_EQ(engine.getEventTimes().size(), 1u);
  EXPECT_EQ(ReadWholeFile("../EventList0"), shown + foreign);

  fs::remove_all("rec/day");  // nothing is left: every event of the number goes
  SearchAllTime(engine);
  EXPECT_EQ(ReadWholeFile("../EventList0"), foreign);
}

TEST(LocalSearch, WhatCannotBeReadRemovesNoEvents) {
  OneFolder folder;
  folder.Record(kFebruary, kFebruary + 100);
  const std::string events = EventBytes({kFebruary + 50, kFebruary + 60}) + EventBytes({5, 6});
  for (std::uint64_t operation = 0;; ++operation) {
    SCOPED_TRACE(operation);
    WriteWholeFile("../EventList0", events);
    test::FaultScope faults;
    faults.io.FailOperation(operation, EIO);
    LocalPBSearchEngine engine;
    SearchAllTime(engine);
    const bool failed = faults.io.Operations() > operation;
    const std::string left = ReadWholeFile("../EventList0");
    EXPECT_TRUE(left == events || left == events.substr(0, test::kEventBytes));
    EXPECT_EQ(faults.io.OpenHandles(), 0);
    if (!failed) {
      EXPECT_EQ(left.size(), test::kEventBytes);
      break;
    }
  }
}

// A process that prunes is killed at any moment while another one records events.
TEST(LocalSearch, AKilledProcessLosesNoEvent) {
  OneFolder folder;
  folder.Record(kFebruary, kFebruary + 100);
  std::size_t kept = 0;
  for (int round = 0; round < 15; ++round) {
    const pid_t pruning = fork();
    if (pruning == 0) {
      for (;;) {
        LocalPBSearchEngine engine;
        SearchAllTime(engine);
      }
    }
    FX_EventDBListWriter writer;
    for (unsigned i = 0; i < 20; ++i) {
      // Every other one has no recording.
      writer.InitialEventDBInfo(i % 2 == 0 ? L"Rec_Site1_1.drv" : L"Rec_Site2_1.drv", i, 1, 0, 0,
                                L"", L"");
      writer.SetRecordTime(kFebruary + 1, i);
      writer.SetRecordTime(kFebruary + 50, i);
      ASSERT_TRUE(writer.WriteDBInfoIntoList(i));
    }
    kill(pruning, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pruning, &status, 0), pruning);
    ASSERT_TRUE(WIFSIGNALED(status));
    kept += 10;
    LocalPBSearchEngine engine;
    SearchAllTime(engine);
    ASSERT_EQ(engine.getEventTimes().size(), kept);
    ASSERT_EQ(ReadWholeFile("../EventList0").size(), kept * test::kEventBytes);
  }
}

}  // namespace
