// The records themselves, and the lists that recorders write, by their bytes.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "cms/exports/database_exports.h"
#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/paths.h"

namespace {

using test::NumberAt;
using test::ReadWholeFile;
using test::TextAt;
using test::TimeAt;

std::string Golden(const std::string& name) {
  return ReadWholeFile(test::DataFolder() + "/databases/" + name);
}

TEST(RecordDatabase, EveryDatabaseMatchesItsGoldenFile) {
  const test::WorkFolder work;
  const std::string native = "rec/\u0417\u0430\u043B \u6771\u4EAC \U0001F600";
  const wchar_t* const folder = L"rec\\\u0417\u0430\u043B \u6771\u4EAC \U0001F600";
  const wchar_t* const site = L"Empfang S\u00FCd \u53D7\u4ED8";
  const wchar_t* const address = L"cam-7.example";
  std::filesystem::create_directory(native);
  {
    FX_RecordDBListWriter writer;
    writer.SetDBListPath(folder);
    writer.InitialRecordDBInfo(L"Rec_Site7_20240229120000.drv", address, site, 8554);
    writer.SetRecordTime(1709208000);
    writer.SetRecordTime(1709208600);
    writer.InitialRecordDBInfo(L"other.drv", L"", nullptr, 0);  // stores the first
    EXPECT_EQ(ReadWholeFile(native + ".DB"), Golden("span.DB"));
    EXPECT_TRUE(writer.WriteDBInfoIntoList());
    EXPECT_TRUE(writer.WriteDBInfoIntoList());  // nothing is pending any more
    writer.InitialRecordDBInfo(L"never stored.drv", L"", L"", 0);
  }
  EXPECT_EQ(
      AddDBInfoFromList(folder, L"Rec_Site7_", L"Rec_Site7_20240229120001.drv", -5, 0x1'2345'6789),
      1);
  EXPECT_EQ(ReadWholeFile(native + "/RecordDB"), Golden("RecordDB"));
  EXPECT_EQ(ReadWholeFile(native + ".DB"), Golden("span.DB"));  // times of 0 changed nothing

  FX_EventDBListWriter events;
  events.InitialEventDBInfo(L"rec\\Rec_Site7_20240229120000.drv", 0, 1, 0, 8554, site, address);
  events.SetRecordTime(1709208010, 0);
  events.SetRecordTime(1709208020, 0);
  EXPECT_TRUE(events.WriteDBInfoIntoList(0));
  events.InitialEventDBInfo(L"rec/Rec_Site-1_.drv", 31, 0xF4, 255, 65535, site, address);
  for (const std::int64_t time : {-7, 0, 100, 101, 102}) {
    events.SetRecordTime(time, 31);
  }
  EXPECT_TRUE(events.WriteDBInfoIntoList(31));
  EXPECT_EQ(ReadWholeFile(work.Beside("EventList0")), Golden("EventList0"));

  CRecFolderDBWriter folders;
  EXPECT_EQ(folders.WriterRecFolderDB(3, folder), 1);
  EXPECT_EQ(folders.WriterRecFolderDB(3, L"D:\\rec"), 1);
  EXPECT_EQ(ReadWholeFile(work.Beside("RecFolderDB3")), Golden("RecFolderDB3"));
}

TEST(RecordDatabase, TimesFollowTheFrames) {
  const auto timesOf = [](const auto& info) {
    return std::pair(info.GetStartTime(), info.GetEndTime());
  };
  const struct {
    std::initializer_list<std::int64_t> times;
    std::pair<std::int64_t, std::int64_t> record;
    std::pair<std::int64_t, std::int64_t> event;
  } cases[] = {
      {{}, {0, 0}, {0, 0}},
      {{1000, 500, 800}, {500, 800}, {500, 800}},
      {{1000, 2000, 1500}, {1000, 1500}, {1000, 1500}},  // the last time, not the latest
      {{1000, 0, -1}, {1000, 1000}, {1000, 1000}},
      {{1000, 1}, {1, 1000}, {1000, 1000}},  // 1 is a time for a file, and none for an event
      {{100, 101}, {100, 101}, {101, 101}},
  };
  for (const auto& c : cases) {
    FX_RecordDBInfo record;
    FX_EventDBInfo event;
    for (const std::int64_t time : c.times) {
      record.SetRecordTime(time);
      event.SetRecordTime(time);
    }
    EXPECT_EQ(timesOf(record), c.record);
    EXPECT_EQ(timesOf(event), c.event);
  }
}

// Every setter touches its own bytes and no others.
TEST(RecordDatabase, EventFieldsByOffset) {
  FX_EventDBInfo event(0x12, 0x23, 0x01020304, 0x0506, 0x37, 8, 0x090A, L"s", L"a");
  event.SetIndex(0x0B0C);
  event.SetStartTime(-2);
  event.SetEndTime(0x0102030405060708);
  std::string bytes(reinterpret_cast<const char*>(&event), sizeof(event));
  std::string expected(test::kEventBytes, '\0');
  test::PutText(expected, 0, u"s");
  test::PutText(expected, 64, u"a");
  test::PutNumber(expected, 192, 2, 0x090A);
  test::PutNumber(expected, 194, 1, 0x32);
  test::PutNumber(expected, 196, 2, 0x0506);
  test::PutNumber(expected, 198, 1, 7);
  test::PutNumber(expected, 200, 2, 0x0B0C);
  test::PutNumber(expected, 202, 1, 8);
  test::PutNumber(expected, 208, 4, 0x01020304);
  test::PutNumber(expected, 216, 8, static_cast<std::uint64_t>(-2));
  test::PutNumber(expected, 224, 8, 0x0102030405060708);
  EXPECT_EQ(bytes, expected);
  event.SetCMSNumber(0xFF);
  EXPECT_EQ(event.GetGroupNumber(), 3u);
  event.SetGroupNumber(0x10);
  EXPECT_EQ(event.GetCMSNumber(), 15u);
  EXPECT_EQ(event.GetGroupNumber(), 0u);
}

TEST(RecordDatabase, RecordFieldsCopiesAndNames) {
  FX_RecordDBInfo record(L"D:\\rec\\\u00E9.drv", L"host", L"Site", 80, 9, 0xA5);
  record.SetStartTime(1);
  record.SetEndTime(2);
  FX_RecordDBInfo copy;
  copy = record;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&copy), sizeof(copy)),
            test::RecordBytes({u"D:\\rec\\\u00E9.drv", 1, 2, u"host", u"Site", 80, 0, 0xA5, 9}));
  std::string name;
  copy.GetFileName(name);
  EXPECT_EQ(name, "D:\\rec\\\u00E9.drv");
  copy.SetFilenameW(L"x");  // shorter: zero-filled behind
  EXPECT_EQ(TextAt({reinterpret_cast<const char*>(&copy), sizeof(copy)}, 0, 260), u"x");
  copy.SetInfo(L"y", L"", L"", 1, 2, 3);
  EXPECT_EQ(copy.GetStartTime() + copy.GetEndTime(), 0);
}

TEST(RecordDatabase, SiteNumbersOfNames) {
  const test::WorkFolder work;
  const struct {
    const wchar_t* name;
    std::uint32_t number;
  } cases[] = {
      {L"Rec_Site12_20240229120000.drv", 12},
      {L"Rec_Site0_1.drv", 0},
      {L"Rec_Site 5_1.drv", 5},
      {L"Rec_Site+6", 6},
      {L"Rec_Site-2_1.drv", 0xFFFFFFFE},
      {L"Rec_Site99999999999_1.drv", 0x7FFFFFFF},
      {L"rec_Site1_1.drv", 0},
      {L"xRec_Site1_1.drv", 0},
      {L"Rec_Site_1.drv", 0},
      {L"Rec_Site", 0},
      {L"", 0},
  };
  FX_RecordDBListWriter records;
  FX_EventDBListWriter events;
  records.SetDBListPath(L"rec");
  for (const auto& c : cases) {
    records.InitialRecordDBInfo(c.name, L"", L"", 0);
    events.InitialEventDBInfo((L"D:\\Rec_Site77\\" + std::wstring(c.name)).c_str(), 0, 1, 0, 0, L"",
                              L"");
    events.SetRecordTime(1000, 0);
  }
  EXPECT_TRUE(records.WriteDBInfoIntoList());
  EXPECT_TRUE(events.WriteDBInfoIntoList(0));
  const std::string recordList = ReadWholeFile("rec/RecordDB");
  const std::string eventList = ReadWholeFile(work.Beside("EventList0"));
  ASSERT_EQ(recordList.size(), std::size(cases) * test::kRecordBytes);
  ASSERT_EQ(eventList.size(), std::size(cases) * test::kEventBytes);
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(NumberAt(recordList, i * test::kRecordBytes + 716, 4), cases[i].number) << i;
    EXPECT_EQ(NumberAt(eventList, i * test::kEventBytes + 208, 4), cases[i].number) << i;
  }
}

TEST(RecordDatabase, ThirtyTwoSlotsOfEvents) {
  const test::WorkFolder work;
  FX_EventDBListWriter events;
  for (unsigned channel = 0; channel < 33; ++channel) {
    EXPECT_FALSE(events.IsInitial(channel));
    events.InitialEventDBInfo(L"x.drv", channel, 3, 5, 1, L"", L"");
    EXPECT_EQ(events.IsInitial(channel), channel < 32);
  }
  for (const unsigned channel : {31u, 7u, 32u, 0xFFFFFFFFu}) {
    events.SetRecordTime(1000 + channel, channel);
  }
  for (unsigned channel = 0; channel < 33; ++channel) {
    EXPECT_TRUE(events.WriteDBInfoIntoList(channel));
    EXPECT_FALSE(events.IsInitial(channel));
  }
  const std::string list = ReadWholeFile(work.Beside("EventList0"));
  ASSERT_EQ(list.size(), 2 * test::kEventBytes);  // those without times were dropped
  EXPECT_EQ(NumberAt(list, 196, 2), 7u);
  EXPECT_EQ(TimeAt(list, 216), 1007);
  EXPECT_EQ(NumberAt(list, test::kEventBytes + 196, 2), 31u);
}

// The longest path that a record holds survives; where a database's path would not fit, nothing is
// written, least of all into a file whose path begins the same.
TEST(RecordDatabase, LongPaths) {
  const test::WorkFolder work;
  const std::wstring name = L"Rec_Site1_20240229120000.drv";
  const struct {
    std::size_t length;
    bool stored;
    std::size_t files;  // record list and span
  } cases[] = {{259 - 1 - name.size(), true, 2}, {250, true, 2}, {251, false, 1}, {257, false, 0}};
  for (const auto& [length, stored, expectedFiles] : cases) {
    SCOPED_TRACE(length);
    // Each of these characters takes three bytes in the file system.
    std::wstring folder = L"rec\\";
    while (folder.size() < length) {
      folder += (folder.size() + 1) % 60 == 0 ? L'\\' : L'\u6771';
    }
    std::string native;
    std::u16string utf16;
    for (const wchar_t c : folder) {
      native += c == L'\\' ? "/" : c == L'\u6771' ? "\u6771" : std::string(1, static_cast<char>(c));
      utf16 += static_cast<char16_t>(c);
    }
    std::filesystem::create_directories(native);
    FX_RecordDBListWriter writer;
    writer.SetDBListPath(folder.c_str());
    writer.InitialRecordDBInfo(name.c_str(), L"", L"", 0);
    writer.SetRecordTime(5);
    EXPECT_EQ(writer.WriteDBInfoIntoList(), stored);
    const std::string list = ReadWholeFile(native + "/RecordDB");
    ASSERT_EQ(list.size(), stored ? test::kRecordBytes : 0u);
    if (stored) {
      const std::u16string whole = utf16 + u"\\Rec_Site1_20240229120000.drv";
      EXPECT_EQ(TextAt(list, 0, 260), whole.substr(0, 259));
      EXPECT_EQ(ReadWholeFile(native + ".DB"), test::SpanBytes(5, 5));
      std::int64_t start = 0;
      EXPECT_TRUE(GetTimeFromSubFolderDB(folder.c_str(), &start, nullptr));
      EXPECT_EQ(start, 5);
    }
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("rec")) {
      files += entry.is_regular_file() ? 1u : 0u;
    }
    EXPECT_EQ(files, expectedFiles);
    std::filesystem::remove_all("rec");
    std::filesystem::create_directory("rec");
  }
}

TEST(RecordDatabase, FolderListHasNoDuplicates) {
  const test::WorkFolder work;
  CRecFolderDBWriter writer;
  const std::string list = work.Beside("RecFolderDB4294967295");
  const auto add = [&](const wchar_t* folder) { return writer.WriterRecFolderDB(~0u, folder); };
  EXPECT_EQ(add(L"D:\\rec"), 1);
  EXPECT_EQ(add(L"D:\\rec"), 0);
  EXPECT_EQ(add(L"D:\\Rec"), 1);  // case counts
  EXPECT_EQ(add(L"D:\\re"), 1);
  EXPECT_EQ(add(L"D:\\\U0001F600"), 1);
  EXPECT_EQ(add(L"D:\\\U0001F600"), 0);
  EXPECT_EQ(add(std::wstring(260, L'x').c_str()), 1);  // not cut to another folder's path
  const std::string all = test::FolderBytes(u"D:\\rec") + test::FolderBytes(u"D:\\Rec") +
                          test::FolderBytes(u"D:\\re") + test::FolderBytes(u"D:\\\U0001F600");
  EXPECT_EQ(ReadWholeFile(list), all);

  EXPECT_TRUE(writer.DeleteRecFolderDB(~0u, L"D:\\none"));
  EXPECT_TRUE(writer.DeleteRecFolderDB(5, L"no such list"));
  EXPECT_EQ(ReadWholeFile(list), all);
  test::WriteWholeFile(list, all + test::FolderBytes(u"D:\\Rec") + "torn");
  EXPECT_TRUE(writer.DeleteRecFolderDB(~0u, L"D:\\Rec"));  // the first of the two
  EXPECT_EQ(ReadWholeFile(list), test::FolderBytes(u"D:\\rec") + test::FolderBytes(u"D:\\re") +
                                     test::FolderBytes(u"D:\\\U0001F600") +
                                     test::FolderBytes(u"D:\\Rec"));
  EXPECT_FALSE(std::filesystem::exists(list + ".tmp"));
}

}  // namespace
