// The databases on a disk that fails: whatever fails, and whenever, what was stored before stays.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "cms/exports/database_exports.h"
#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "tests/recording/database_bytes.h"

namespace {

using test::FaultScope;
using test::ReadWholeFile;
using test::RecordBytes;
using test::SpanBytes;
using test::WriteWholeFile;

constexpr const char* kList = "rec/RecordDB";
constexpr const char* kSpan = "rec.DB";

std::string Old() {
  return RecordBytes({u"rec\\a.drv", 10, 20}) + RecordBytes({u"rec\\b.drv", 30, 40}) +
         RecordBytes({u"rec\\a2.drv", 50, 60});
}

std::string OldEvents() {
  return std::string(2 * test::kEventBytes, 'e');
}
std::string OldFolders() {
  return test::FolderBytes(u"D:\\x") + test::FolderBytes(u"D:\\y");
}

bool StoreRecord() {
  FX_RecordDBListWriter writer;
  writer.SetDBListPath(L"rec");
  writer.InitialRecordDBInfo(L"c.drv", L"10.0.0.1", L"Site", 554);
  writer.SetRecordTime(5);
  return writer.WriteDBInfoIntoList();
}

bool StoreEvent() {
  FX_EventDBListWriter events;
  events.InitialEventDBInfo(L"c.drv", 1, 1, 0, 0, L"", L"");
  events.SetRecordTime(1000, 1);
  return events.WriteDBInfoIntoList(1);
}

// The same records, each with its old times or the new ones.
bool IsEachOldOrNew(const std::string& list, const std::string& before, const std::string& after) {
  for (std::size_t at = 0; at < before.size(); at += test::kRecordBytes) {
    const std::string record = list.substr(at, test::kRecordBytes);
    if (record != before.substr(at, test::kRecordBytes) &&
        record != after.substr(at, test::kRecordBytes)) {
      return false;
    }
  }
  return list.size() == before.size();
}

struct Step {
  const char* name;
  std::function<bool()> run;  // its own report, true for a full success
};

class DatabaseFaults : public testing::Test {
 protected:
  void Prepare(const std::string& tail = {}) {
    WriteWholeFile(kList, Old() + tail);
    WriteWholeFile(kSpan, SpanBytes(10, 60));
    WriteWholeFile(events_, OldEvents() + tail);
    WriteWholeFile(folders_, OldFolders() + tail);
    std::filesystem::remove(std::string(kList) + ".tmp");
    std::filesystem::remove(folders_ + ".tmp");
  }

  // Every file is as it was, or as one of the steps makes it whole; a tail that is no record may
  // stand behind the records.
  void ExpectWhole() {
    const auto records = ReadWholeFile(kList);
    const auto whole = records.substr(0, records.size() / 736 * 736);
    const std::set<std::string> removed = {Old().substr(0, 736) + Old().substr(1472)};
    EXPECT_TRUE(whole == Old() || whole == Old() + added_ || removed.contains(whole) ||
                IsEachOldOrNew(whole, Old(), modified_))
        << whole.size();
    const auto span = ReadWholeFile(kSpan);
    EXPECT_TRUE(span == SpanBytes(10, 60) || span == SpanBytes(5, 60) || span == SpanBytes(20, 50))
        << span.size();
    const auto events = ReadWholeFile(events_);
    EXPECT_EQ(events.substr(0, OldEvents().size()), OldEvents());
    const auto folders = ReadWholeFile(folders_);
    const auto wholeFolders = folders.substr(0, folders.size() / 520 * 520);
    EXPECT_TRUE(wholeFolders == OldFolders() ||
                wholeFolders == OldFolders() + test::FolderBytes(u"D:\\z") ||
                wholeFolders == OldFolders().substr(520));
  }

  const test::WorkFolder work_;
  const std::string events_ = work_.Beside("EventList0");
  const std::string folders_ = work_.Beside("RecFolderDB0");
  const std::string added_ = RecordBytes({u"rec\\c.drv", 5, 5, u"10.0.0.1", u"Site", 554, 0, 0, 0});
  const std::string modified_ = RecordBytes({u"rec\\a.drv", 11, 22}) +
                                RecordBytes({u"rec\\b.drv", 30, 40}) +
                                RecordBytes({u"rec\\a2.drv", 11, 22});
  const Step steps_[8] = {
      {"store a record", StoreRecord},
      {"store an event", StoreEvent},
      {"make the span", [] { return MakeSubRecFolderDB(L"rec") == 1; }},
      {"narrow the span", [] { return ModifyRecSubFolderDBInfo(L"rec", 20, 50) == 1; }},
      {"change times", [] { return ModifyDBInfoTime(L"rec", L"a", 11, 22) == 1; }},
      {"remove a record", [] { return RemoveDBInfoFromList(L"rec", L"b") == 1; }},
      {"list a folder", [] { return CRecFolderDBWriter().WriterRecFolderDB(0, L"D:\\z") == 1; }},
      {"forget a folder", [] { return CRecFolderDBWriter().DeleteRecFolderDB(0, L"D:\\x"); }},
  };
};

TEST_F(DatabaseFaults, OperationNFails) {
  for (const Step& step : steps_) {
    for (const bool forGood : {false, true}) {
      for (const char* tail : {"", "torn"}) {
        std::uint64_t faults = 0;
        for (std::uint64_t number = 0;; ++number) {
          SCOPED_TRACE(testing::Message() << step.name << ", operation " << number
                                          << (forGood ? " and all behind it" : "") << tail);
          Prepare(tail);
          FaultScope fault;
          fault.io.FailOperation(number, number % 2 == 0 ? EIO : ENOSPC, forGood);
          step.run();
          EXPECT_EQ(fault.io.OpenHandles(), 0);
          if (fault.io.Operations() <= number) {
            break;
          }
          ++faults;
          ExpectWhole();
          if (!forGood) {
            EXPECT_FALSE(std::filesystem::exists(std::string(kList) + ".tmp"));
          }
          // And the next one, on a disk that works again, does its job.
          fault.io.FailOperation(test::FaultyFileIo::kNever, 0);
          EXPECT_TRUE(StoreRecord());
          const auto list = ReadWholeFile(kList);
          ASSERT_EQ(list.size() % test::kRecordBytes, 0u);
          EXPECT_EQ(list.substr(list.size() - test::kRecordBytes), added_);
        }
        EXPECT_GE(faults, 4u) << step.name;
        ExpectWhole();
      }
    }
  }
}

TEST_F(DatabaseFaults, ShortWritesAreCompletedAndAFullDiskChangesNothing) {
  for (const Step& step : steps_) {
    SCOPED_TRACE(step.name);
    Prepare();
    EXPECT_TRUE(step.run());
    const auto expectedList = ReadWholeFile(kList);
    const auto expectedSpan = ReadWholeFile(kSpan);
    Prepare("torn");
    FaultScope fault;
    fault.io.LimitWrite(7);
    EXPECT_TRUE(step.run());
    const bool untouched = ReadWholeFile(kList) == Old() + "torn";
    EXPECT_TRUE(untouched || ReadWholeFile(kList) == expectedList);
    EXPECT_EQ(ReadWholeFile(kSpan), expectedSpan);
  }
  for (std::uint64_t space = 0; space < 736; space += 105) {
    SCOPED_TRACE(space);
    Prepare("torn");
    FaultScope fault;
    fault.io.LimitSpace(space);
    EXPECT_FALSE(StoreRecord());
    fault.io.LimitSpace(space);
    EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"b"), 0);
    EXPECT_FALSE(std::filesystem::exists(std::string(kList) + ".tmp"));
    ExpectWhole();
  }
}

// Power fails right after a removal was reported: the list is there, without the record.
TEST_F(DatabaseFaults, ARemovalThatWasReportedSurvivesAPowerCut) {
  Prepare();
  FaultScope fault;
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"b"), 1);
  fault.io.CutPower();
  EXPECT_EQ(ReadWholeFile(kList), Old().substr(0, 736) + Old().substr(1472));
}

// A folder that vanished, and a list that cannot be written.
TEST_F(DatabaseFaults, FoldersThatAreGone) {
  Prepare();
  std::filesystem::remove_all("rec");
  EXPECT_FALSE(StoreRecord());
  EXPECT_EQ(ReadWholeFile(kSpan), SpanBytes(5, 60));  // the file is recorded, the span says so
  EXPECT_FALSE(RemoveDBList(L"rec"));
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"b"), 0);
  EXPECT_EQ(ModifyDBInfoTime(L"rec", L"b", 1, 2), 0);
  EXPECT_EQ(AddDBInfoFromList(L"rec", L"b", L"c", 1, 2), 0);
  std::filesystem::remove_all(work_.Beside(""));
  EXPECT_FALSE(StoreRecord());
  EXPECT_FALSE(StoreEvent());
  EXPECT_EQ(CRecFolderDBWriter().WriterRecFolderDB(0, L"D:\\z"), 1);
  EXPECT_TRUE(CRecFolderDBWriter().DeleteRecFolderDB(0, L"D:\\z"));
  EXPECT_EQ(MakeSubRecFolderDB(L"rec"), 0);
}

}  // namespace
