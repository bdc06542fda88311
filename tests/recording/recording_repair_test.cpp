#include "cms/recording/recording_repair.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <thread>

#include "tests/recording/database_bytes.h"
#include "tests/support/drv_generator.h"

namespace {

namespace fs = std::filesystem;
using test::ReadWholeFile;
using test::RecordBytes;
using test::SpanBytes;
using test::WriteWholeFile;

constexpr std::int64_t kStart = 1'700'000'000;  // of the generated recordings, of 8 seconds
constexpr char kOne[] = "rec/Rec_Site1_20260101000000";

// All files below a folder with their content.
std::map<std::string, std::string> FolderSnapshot(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files[entry.path().string()] = ReadWholeFile(entry.path().string());
    }
  }
  return files;
}

class RecordingRepair : public testing::Test {
 protected:
  // A file that nobody has just closed.
  static void Write(const std::string& path, const std::string& content) {
    WriteWholeFile(path, content);
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(1));
  }
  void WriteSound(const std::string& stem, std::int64_t start = kStart,
                  std::int64_t end = kStart + 7) const {
    Write(stem + ".drv", recording_.bytes);
    Write(stem + ".idx", recording_.Idx());
    const std::string list = fs::path(stem).parent_path().string() + "/RecordDB";
    const std::string name = fs::path(stem).filename().string() + ".drv";
    Write(list,
          ReadWholeFile(list) + RecordBytes({u"rec\\" + std::u16string(name.begin(), name.end()),
                                             start, end, u"10.0.0.7", u"Hof", 8554}));
  }
  cms::RepairReport Repair(const std::vector<std::wstring>& folders = {L"rec"}) {
    results_.clear();
    return cms::RepairRecordings(folders, [this](const cms::RepairedRecording& result) {
      results_.push_back(result);
      return true;
    });
  }
  void ExpectUnchangedByRepair() {
    const auto before = FolderSnapshot(".");
    const auto report = Repair();
    EXPECT_EQ(report.repaired + report.removed + report.recording + report.failed, 0u);
    EXPECT_EQ(report.recordsAdded + report.indexRebuilt + report.spansFixed, 0u);
    EXPECT_EQ(FolderSnapshot("."), before);
  }

  const test::WorkFolder work_;
  const test::DrvRecording recording_ = test::MakeRecording(40, 6, 400, 1);
  std::vector<cms::RepairedRecording> results_;
};

// Also with what looks odd and is right.
TEST_F(RecordingRepair, SoundFoldersStayAsTheyAre) {
  WriteSound(kOne);
  Write("rec.DB", SpanBytes(kStart, kStart + 7));
  ExpectUnchangedByRepair();
  // A record of no frames, a record whose file was moved away, and a file that was continued.
  Write("rec/RecordDB",
        RecordBytes({u"rec\\Rec_Site1_20260101000000.drv", kStart, kStart + 3}) +
            RecordBytes({u"rec\\Rec_Site1_20260102000000.drv", 0, 0}) +
            RecordBytes({u"rec\\Rec_Site1_20250101000000.drv", 5000, 6000}) +
            RecordBytes({u"rec\\Rec_Site1_20260101000000.drv", kStart + 4, kStart + 7}));
  Write("rec.DB", SpanBytes(5000, kStart + 7));
  Write("rec/Rec_Site1_20260102000000.drv", "");
  Write("rec/Rec_Site1_20260102000000.idx", "");
  Write("rec/notes.txt", "@2");
  ExpectUnchangedByRepair();
}

TEST_F(RecordingRepair, ACrashIsMendedWholly) {
  fs::create_directories("day2");
  WriteSound(kOne);
  Write("rec.DB", SpanBytes(kStart, kStart + 7));
  Write("rec/RecordDB", ReadWholeFile("rec/RecordDB") + std::string(100, 'x'));  // torn
  // The first day's last file: torn, its index short. The next day's first: no index, no databases.
  const std::string last = "rec/Rec_Site1_20260101001000";
  const std::uint64_t tornAt = recording_.frames[39].offset;
  Write(last + ".drv", recording_.bytes.substr(0, tornAt + 40));
  Write(last + ".idx", recording_.Idx().substr(0, 100));
  Write(last + ".idx.new", "left by a repair that was killed");
  Write(last + "1.drv.moving", "left by a move that was killed");
  Write("day2/Rec_Site1_20260102000000.drv", recording_.bytes);
  Write("day2/Rec_Site9_20260102000000.drv", recording_.bytes);
  Write("day2/Rec_Site1_20260102001000.drv", "");
  Write("day2/Rec_Site1_20260102001000.idx", "");
  const auto report = Repair({L"rec", L"day2"});
  EXPECT_TRUE(report.complete);
  EXPECT_EQ(report.files, 5u);
  EXPECT_EQ(report.repaired, 3u);
  EXPECT_EQ(report.removed, 1u);
  EXPECT_EQ(report.failed, 0u);
  EXPECT_EQ(report.recordsAdded, 3u);
  EXPECT_EQ(report.indexRebuilt, 3u);
  EXPECT_EQ(report.spansFixed, 1u);
  EXPECT_EQ(results_.at(1).cutBytes, 40u);
  EXPECT_EQ(ReadWholeFile(last + ".drv"), recording_.bytes.substr(0, tornAt));
  EXPECT_EQ(ReadWholeFile("day2/Rec_Site1_20260102000000.idx").size(), recording_.Idx().size());
  const auto made = [](const char16_t* file, std::uint32_t site) {
    const bool known = site == 1;
    return RecordBytes({file, kStart, kStart + 7, known ? u"10.0.0.7" : u"", known ? u"Hof" : u"",
                        static_cast<std::uint16_t>(known ? 8554 : 0), 0, 0, site});
  };
  EXPECT_EQ(ReadWholeFile("rec/RecordDB").substr(test::kRecordBytes),
            made(u"rec\\Rec_Site1_20260101001000.drv", 1));
  EXPECT_EQ(ReadWholeFile("day2/RecordDB"), made(u"day2\\Rec_Site1_20260102000000.drv", 1) +
                                                made(u"day2\\Rec_Site9_20260102000000.drv", 9));
  EXPECT_EQ(ReadWholeFile("day2.DB"), SpanBytes(kStart, kStart + 7));
  EXPECT_FALSE(fs::exists("day2/Rec_Site1_20260102001000.drv"));
  EXPECT_FALSE(fs::exists("day2/Rec_Site1_20260102001000.idx"));
  EXPECT_FALSE(fs::exists(last + ".idx.new") || fs::exists(last + "1.drv.moving"));
  ExpectUnchangedByRepair();
}

// The part that was stored has its record; the rest gets one of its own.
TEST_F(RecordingRepair, AContinuedRecordingGetsTheRecordOfItsRest) {
  WriteSound(kOne, kStart, kStart + 2);
  Write("rec.DB", SpanBytes(9000, kStart + 99));  // nor is the span right
  const auto report = Repair();
  EXPECT_EQ(report.recordsAdded, 1u);
  EXPECT_EQ(report.spansFixed, 1u);
  const std::string list = ReadWholeFile("rec/RecordDB");
  ASSERT_EQ(list.size(), 2 * test::kRecordBytes);
  EXPECT_EQ(test::TimeAt(list, test::kRecordBytes + 720), kStart + 3);
  EXPECT_EQ(test::TimeAt(list, test::kRecordBytes + 728), kStart + 7);
  EXPECT_EQ(ReadWholeFile("rec.DB"), SpanBytes(kStart, kStart + 7));
  ExpectUnchangedByRepair();
}

// The record of a file that bears both sides of a step back tells of one of them.
TEST_F(RecordingRepair, EachSpanOfAClockThatWasSetBackIsFoundAgain) {
  test::DrvRecording file;
  std::uint32_t sequence = 0;
  const auto add = [&](std::int64_t from, std::int64_t to) {
    for (std::int64_t second = from; second <= to; ++second) {
      file.Add({.frameType = second == from ? 1u : 2u,
                .seconds = static_cast<std::uint32_t>(second),
                .sequence = ++sequence});
    }
  };
  add(kStart, kStart + 20);
  add(kStart - 3600, kStart - 3588);
  add(kStart - 90'000, kStart - 90'000);
  Write(std::string(kOne) + ".drv", file.bytes);
  Write(std::string(kOne) + ".idx", file.Idx());
  Write("rec/RecordDB",
        RecordBytes({u"rec\\Rec_Site1_20260101000000.drv", kStart - 3600, kStart - 3588}));
  Write("rec.DB", SpanBytes(kStart - 3600, kStart - 3588));
  EXPECT_EQ(Repair().recordsAdded, 1u);  // recordings that got one or more
  const std::string list = ReadWholeFile("rec/RecordDB");
  ASSERT_EQ(list.size(), 3 * test::kRecordBytes);
  const auto times = [&](std::size_t record) {
    return std::pair(test::TimeAt(list, record * test::kRecordBytes + 720),
                     test::TimeAt(list, record * test::kRecordBytes + 728));
  };
  EXPECT_EQ(times(1), std::pair(kStart, kStart + 20));
  EXPECT_EQ(times(2), std::pair(kStart - 90'000, kStart - 89'999));  // searches look for spans
  ExpectUnchangedByRepair();
}

TEST_F(RecordingRepair, WhatIsBeingRecordedIsLeftAlone) {
  for (const bool empty : {false, true}) {
    const std::string torn = empty ? "" : recording_.bytes.substr(0, recording_.bytes.size() - 1);
    Write(std::string(kOne) + ".drv", torn);
    Write(std::string(kOne) + ".idx", "");
    const int handle = open((std::string(kOne) + ".drv").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(handle, LOCK_EX | LOCK_NB), 0);
    const auto report = Repair();
    EXPECT_EQ(report.recording, 1u);
    EXPECT_EQ(report.failed + report.removed + report.recordsAdded, 0u);
    EXPECT_EQ(ReadWholeFile(std::string(kOne) + ".drv"), torn);
    EXPECT_TRUE(fs::exists(std::string(kOne) + ".idx"));
    close(handle);
  }
}

// A recorder stores the record of a file behind its close: it gets the time for it.
TEST_F(RecordingRepair, AFileThatWasJustClosedIsGivenTimeForItsRecord) {
  WriteSound(kOne);
  const std::string list = ReadWholeFile("rec/RecordDB");
  fs::remove("rec/RecordDB");
  fs::last_write_time(std::string(kOne) + ".drv", fs::file_time_type::clock::now());
  std::thread recorder([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    WriteWholeFile("rec/RecordDB", list);
  });
  EXPECT_EQ(Repair().recordsAdded, 0u);
  recorder.join();
  EXPECT_EQ(ReadWholeFile("rec/RecordDB"), list);
}

TEST_F(RecordingRepair, ForeignFilesAreNamedAndKept) {
  Write("rec/movie.drv", "this is no recording at all, but longer than a header");
  Write("rec/\xFFname.drv", recording_.bytes);  // no text of the system's
  const auto before = FolderSnapshot(".");
  const auto report = Repair({L"rec", L"missing"});
  EXPECT_EQ(report.failed, 1u);
  EXPECT_EQ(results_.at(0).strayBytes, 53u);
  EXPECT_EQ(results_.at(1).error, EILSEQ);
  EXPECT_EQ(report.failedFolders, (std::vector<std::wstring>{L"missing"}));
  EXPECT_EQ(FolderSnapshot("."), before);
}

// Whichever operation fails: nothing whole is lost, and the next repair does the rest.
TEST_F(RecordingRepair, EveryOperationMayFail) {
  const std::string whole = recording_.bytes;
  for (const int error : {EIO, ENOSPC}) {
    bool failed = true;
    for (std::uint64_t number = 0; failed; ++number) {
      fs::remove_all("rec");
      fs::remove("rec.DB");
      fs::create_directories("rec");
      Write(std::string(kOne) + ".drv", whole + whole.substr(0, 100));
      Write(std::string(kOne) + ".idx", recording_.Idx().substr(0, 500));
      {
        test::FaultScope faults;
        faults.io.FailOperation(number, error);
        Repair();
        failed = faults.io.Operations() > number;
        EXPECT_EQ(faults.io.OpenHandles(), 0);
      }
      ASSERT_TRUE(ReadWholeFile(std::string(kOne) + ".drv").starts_with(whole)) << number;
      fs::last_write_time(std::string(kOne) + ".drv",
                          fs::file_time_type::clock::now() - std::chrono::minutes(1));
      EXPECT_EQ(Repair().failed, 0u) << number;
      EXPECT_EQ(ReadWholeFile(std::string(kOne) + ".drv"), whole);
      EXPECT_EQ(ReadWholeFile(std::string(kOne) + ".idx").size(), recording_.Idx().size());
      EXPECT_EQ(ReadWholeFile("rec/RecordDB").size(), test::kRecordBytes) << number;
      EXPECT_EQ(ReadWholeFile("rec.DB"), SpanBytes(kStart, kStart + 7)) << number;
      EXPECT_EQ(FolderSnapshot(".").size(), 4u) << number;
    }
  }
}

}  // namespace
