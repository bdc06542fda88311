// The exported maintenance functions over lists that the tests' own code wrote.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <thread>

#include "cms/exports/database_exports.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/event_db_list_writer.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/paths.h"

namespace {

using test::ReadWholeFile;
using test::RecordBytes;
using test::SpanBytes;
using test::WriteWholeFile;

constexpr const char* kMaintainedList = "rec/RecordDB";
constexpr const char* kMaintainedSpan = "rec.DB";
constexpr std::int64_t kUnset = -77;

struct Span {
  bool read = false;
  std::int64_t start = kUnset;
  std::int64_t end = kUnset;
  bool operator==(const Span&) const = default;
};

Span SpanOf(const wchar_t* folder) {
  Span span;
  span.read = GetTimeFromSubFolderDB(folder, &span.start, &span.end);
  return span;
}

TEST(DatabaseMaintenance, SpansOfLists) {
  const test::WorkFolder work;
  EXPECT_EQ(SpanOf(L"rec"), (Span{false, 0, 0}));
  EXPECT_EQ(MakeSubRecFolderDB(L"rec"), 1);
  EXPECT_EQ(ReadWholeFile(kMaintainedSpan), SpanBytes(0, 0));
  const std::string torn(735, '\x7F');
  const struct {
    std::string list;
    std::int64_t start, end;  // of the list
    std::string span;         // as made from it
  } cases[] = {
      {"", 0, 0, SpanBytes(0, 0)},
      {torn, 0, 0, SpanBytes(0, 0)},
      {RecordBytes({u"a", 50, 60}), 50, 60, SpanBytes(50, 60)},
      {RecordBytes({u"a", 50, 60}) + RecordBytes({u"b", 40, 45}) + RecordBytes({u"c", 55, 70}) +
           torn,
       40, 70, SpanBytes(40, 70)},
      // A time that is not set takes part: as a start it wins, as an end it never does.
      {RecordBytes({u"a", 0, 0}) + RecordBytes({u"b", 40, 45}), 0, 45, SpanBytes(0, 45)},
      {RecordBytes({u"b", 40, 45}) + RecordBytes({u"a", 0, 0}), 0, 45, SpanBytes(0, 45)},
      {RecordBytes({u"a", -5, -3}), -5, -3, SpanBytes(0, 0)},
  };
  for (const auto& c : cases) {
    WriteWholeFile(kMaintainedList, c.list);
    WriteWholeFile(kMaintainedSpan, "something longer than a span");
    EXPECT_EQ(SpanOf(L"rec"), (Span{true, c.start, c.end}));
    EXPECT_EQ(MakeSubRecFolderDB(L"rec"), 1);
    EXPECT_EQ(ReadWholeFile(kMaintainedSpan), c.span);
    EXPECT_EQ(ReadWholeFile(kMaintainedList), c.list);  // reading changes nothing
  }
  EXPECT_EQ(MakeSubRecFolderDB(L"no\\such\\folder"), 0);
  EXPECT_FALSE(GetTimeFromSubFolderDB(nullptr, nullptr, nullptr));
  std::filesystem::create_directory("rec/odd");
  std::filesystem::create_directory("rec/odd/RecordDB");  // a folder in the list's place
  WriteWholeFile("rec/odd.DB", SpanBytes(1, 2));
  EXPECT_EQ(SpanOf(L"rec\\odd"), (Span{false, 0, 0}));
  EXPECT_EQ(MakeSubRecFolderDB(L"rec\\odd"), 0);
  EXPECT_EQ(ReadWholeFile("rec/odd.DB"), SpanBytes(1, 2));
}

// Over more than one block of reading, with the extremes where blocks meet.
TEST(DatabaseMaintenance, SpansOfLongLists) {
  const test::WorkFolder work;
  constexpr std::size_t kCount = 1500;
  std::string list;
  for (std::size_t i = 0; i < kCount; ++i) {
    list += RecordBytes({u"f", 1000, 2000});
  }
  for (const std::size_t at : {std::size_t{0}, std::size_t{355}, std::size_t{356}, std::size_t{357},
                               std::size_t{712}, kCount - 1}) {
    std::string changed = list;
    test::PutNumber(changed, at * test::kRecordBytes + 720, 8, 10);
    test::PutNumber(changed, (kCount - 1 - at) * test::kRecordBytes + 728, 8, 9000);
    WriteWholeFile(kMaintainedList, changed + "tail");
    EXPECT_EQ(SpanOf(L"rec"), (Span{true, 10, 9000})) << at;
  }
}

TEST(DatabaseMaintenance, NarrowingASpan) {
  const test::WorkFolder work;
  EXPECT_EQ(ModifyRecSubFolderDBInfo(L"rec", 1, 2), 0);
  EXPECT_FALSE(std::filesystem::exists(kMaintainedSpan));
  const struct {
    std::string before;
    std::int64_t start, end;
    std::string after;
  } cases[] = {
      {SpanBytes(100, 200), 0, 0, SpanBytes(100, 200)},
      {SpanBytes(100, 200), 120, 180, SpanBytes(120, 180)},
      {SpanBytes(100, 200), 90, 210, SpanBytes(100, 200)},  // it only narrows
      {SpanBytes(0, 0), 120, 180, SpanBytes(120, 0)},
      {SpanBytes(100, 200) + "more", 0, 150, SpanBytes(100, 150)},
      {SpanBytes(100, 200).substr(0, 9), 0, 150, SpanBytes(100, 150)},  // torn behind a whole 200
      {SpanBytes(100, 200).substr(0, 8), 0, 150, SpanBytes(100, 0)},
  };
  for (const auto& c : cases) {
    WriteWholeFile(kMaintainedSpan, c.before);
    EXPECT_EQ(ModifyRecSubFolderDBInfo(L"rec", c.start, c.end), 1);
    EXPECT_EQ(ReadWholeFile(kMaintainedSpan), c.after);
  }
  EXPECT_EQ(RemoveRecSubFolderDB(L"rec"), 1);
  EXPECT_FALSE(std::filesystem::exists(kMaintainedSpan));
  EXPECT_EQ(RemoveRecSubFolderDB(L"rec"), 0);
}

TEST(DatabaseMaintenance, ChangingTimes) {
  const test::WorkFolder work;
  EXPECT_EQ(ModifyDBInfoTime(L"rec", L"a", 1, 2), 0);
  EXPECT_FALSE(std::filesystem::exists(kMaintainedList));
  const std::string before = RecordBytes({u"rec\\one_1.drv", 10, 20}) +
                             RecordBytes({u"rec\\two_1.drv", 30, 40}) +
                             RecordBytes({u"rec\\one_2.drv", 50, 60});
  WriteWholeFile(kMaintainedList, before + "torn tail");
  EXPECT_EQ(ModifyDBInfoTime(L"rec", L"ONE", 1, 2), 0);
  EXPECT_EQ(ReadWholeFile(kMaintainedList), before);
  EXPECT_EQ(ModifyDBInfoTime(L"rec", L"one_", 11, 0), 1);
  EXPECT_EQ(ReadWholeFile(kMaintainedList), RecordBytes({u"rec\\one_1.drv", 11, 20}) +
                                                RecordBytes({u"rec\\two_1.drv", 30, 40}) +
                                                RecordBytes({u"rec\\one_2.drv", 11, 60}));
  EXPECT_EQ(ModifyDBInfoTime(L"rec", L"", 0, 99), 1);  // every name contains nothing
  EXPECT_EQ(ReadWholeFile(kMaintainedList), RecordBytes({u"rec\\one_1.drv", 11, 99}) +
                                                RecordBytes({u"rec\\two_1.drv", 30, 99}) +
                                                RecordBytes({u"rec\\one_2.drv", 11, 99}));
}

TEST(DatabaseMaintenance, AddingARecord) {
  const test::WorkFolder work;
  // No list yet, then no match: a record without a template.
  const std::string bare = RecordBytes({u"rec\\\u6771_8.drv", 1, 2, u"", u"", 0, 0, 0, 0});
  EXPECT_EQ(AddDBInfoFromList(L"rec", L"x", L"\u6771_8.drv", 1, 2), 1);
  EXPECT_EQ(AddDBInfoFromList(L"rec", L"\u6771_9", L"\u6771_8.drv", 1, 2), 1);
  EXPECT_EQ(ReadWholeFile(kMaintainedList), bare + bare);
  // The first match, also when its name fills the field to the end without a zero; nibbles and flag
  // are not cloned. The torn tail is overwritten.
  const std::u16string full = std::u16string(259, u'q') + u'z';
  const std::string first = RecordBytes({full, 5, 6, u"addr", u"site", 99, 0x5A, 7, 42});
  const std::string second = RecordBytes({u"qz", 5, 6, u"other", u"other", 1, 0, 0, 1});
  for (const std::string& tail : {std::string(), std::string(735, 'T')}) {
    WriteWholeFile(kMaintainedList, bare + first + second + tail);
    EXPECT_EQ(AddDBInfoFromList(L"rec", L"qz", L"new.drv", -1, 0x7FFFFFFFFFFFFFFF), 1);
    EXPECT_EQ(
        ReadWholeFile(kMaintainedList),
        bare + first + second +
            RecordBytes({u"rec\\new.drv", -1, 0x7FFFFFFFFFFFFFFF, u"addr", u"site", 99, 0, 0, 42}));
  }
  EXPECT_EQ(AddDBInfoFromList(L"no\\such\\folder", L"x", L"y", 1, 2), 0);
  EXPECT_FALSE(std::filesystem::exists(kMaintainedSpan));
}

TEST(DatabaseMaintenance, RemovingARecord) {
  const test::WorkFolder work;
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a"), 0);
  const std::string a = RecordBytes({u"rec\\a_1.drv", 0, 20});
  const std::string b = RecordBytes({u"rec\\a_2.drv", 10, 0});
  const std::string c = RecordBytes({u"rec\\a_3.drv", 10, 20});
  const std::string d = RecordBytes({u"rec\\a_4.drv", 10, 20});
  WriteWholeFile(kMaintainedList, a + b + c + d + "torn");
  WriteWholeFile(kMaintainedSpan, SpanBytes(1, 2));
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a_1"), 0);  // records without both times stay
  EXPECT_EQ(ReadWholeFile(kMaintainedList), a + b + c + d);
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a_"), 1);
  EXPECT_EQ(ReadWholeFile(kMaintainedList), a + b + d);
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a_4"), 1);
  EXPECT_EQ(ReadWholeFile(kMaintainedList), a + b);
  EXPECT_EQ(RemoveDBInfoFromList(L"rec", L"a_4"), 0);
  EXPECT_EQ(ReadWholeFile(kMaintainedSpan), SpanBytes(1, 2));
}

TEST(DatabaseMaintenance, RemovingAList) {
  const test::WorkFolder work;
  WriteWholeFile(kMaintainedSpan, SpanBytes(1, 2));
  EXPECT_FALSE(RemoveDBList(L"rec"));
  EXPECT_TRUE(std::filesystem::exists(kMaintainedSpan));
  WriteWholeFile(kMaintainedList, "");
  EXPECT_TRUE(RemoveDBList(L"rec"));
  EXPECT_FALSE(std::filesystem::exists(kMaintainedSpan));
  WriteWholeFile(kMaintainedList, "");
  EXPECT_FALSE(RemoveDBList(L"rec"));  // the list is gone, but there was no span
  EXPECT_FALSE(std::filesystem::exists(kMaintainedList));
}

TEST(DatabaseMaintenance, TheEventLockKeepsEventsFromTheList) {
  const test::WorkFolder work;
  FX_EventDBListWriter events;
  events.InitialEventDBInfo(L"Rec_Site1_1.drv", 0, 1, 0, 0, L"", L"");
  events.SetRecordTime(1000, 0);
  EventDBLock();
  EventDBLock();  // a thread may lock again
  std::thread storing([&] { EXPECT_TRUE(events.WriteDBInfoIntoList(0)); });
  events.SetRecordTime(1001, 0);  // is not kept waiting
  EXPECT_TRUE(events.IsInitial(0));
  EXPECT_EQ(cms::ReadEventList(0).state, cms::DatabaseState::kMissing);
  EventDBUnLock();
  EXPECT_FALSE(std::filesystem::exists(work.Beside("EventList0")));
  EventDBUnLock();
  storing.join();
  EXPECT_EQ(ReadWholeFile(work.Beside("EventList0")).size(), test::kEventBytes);
}

TEST(DatabaseMaintenance, TheReaderShowsEveryDatabase) {
  const test::WorkFolder work;
  EXPECT_EQ(cms::ReadRecordList(L"rec").state, cms::DatabaseState::kMissing);
  EXPECT_EQ(cms::ReadFolderSpan(L"rec").state, cms::DatabaseState::kMissing);
  EXPECT_EQ(cms::ReadFolderList(0).state, cms::DatabaseState::kMissing);
  const std::string golden = test::DataFolder() + "/databases/";
  WriteWholeFile(kMaintainedList, ReadWholeFile(golden + "RecordDB") + "torn");
  WriteWholeFile(kMaintainedSpan, ReadWholeFile(golden + "span.DB"));
  WriteWholeFile(work.Beside("EventList0"), ReadWholeFile(golden + "EventList0"));
  WriteWholeFile(work.Beside("RecFolderDB3"), ReadWholeFile(golden + "RecFolderDB3"));

  const auto records = cms::ReadRecordList(L"rec");
  EXPECT_EQ(records.state, cms::DatabaseState::kRead);
  EXPECT_EQ(records.tornBytes, 4u);
  ASSERT_EQ(records.rows.size(), 3u);
  EXPECT_EQ(records.rows[0].file, "rec\\Зал 東京 😀\\Rec_Site7_20240229120000.drv");
  EXPECT_EQ(records.rows[0].siteName, "Empfang Süd 受付");
  EXPECT_EQ(records.rows[0].port, 8554);
  EXPECT_EQ(cms::TextOfRecordTime(records.rows[0].start), "2024-02-29T12:00:00Z");
  EXPECT_EQ(cms::TextOfRecordTime(records.rows[1].end), "-");
  const auto spans = cms::ReadFolderSpan(L"rec");
  ASSERT_EQ(spans.rows.size(), 1u);
  EXPECT_EQ(spans.rows[0].end, 1709208600);
  const auto events = cms::ReadEventList(0);
  ASSERT_EQ(events.rows.size(), 2u);
  EXPECT_EQ(events.rows[1].channel, 31u);
  EXPECT_EQ(events.rows[1].preAlarm, 255u);
  EXPECT_EQ(events.rows[1].address, "cam-7.example");
  EXPECT_EQ(cms::TextOfEventType(events.rows[0].type), "device event");
  EXPECT_EQ(cms::TextOfEventType(events.rows[1].type), "video loss");
  const auto folders = cms::ReadFolderList(3);
  ASSERT_EQ(folders.rows.size(), 2u);
  EXPECT_EQ(folders.rows[1].folder, "D:\\rec");

  std::filesystem::remove(kMaintainedList);
  std::filesystem::create_directory(kMaintainedList);
  EXPECT_EQ(cms::ReadRecordList(L"rec").state, cms::DatabaseState::kUnreadable);
  EXPECT_EQ(cms::TextOfRecordTime(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
}

}  // namespace
