// What a recorder that is killed leaves behind, in a copy of its folder, and what repair makes of
// it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "cms/recording/database_reader.h"
#include "cms/recording/recording_repair.h"
#include "tests/recording/recorder_site.h"

namespace {

namespace fs = std::filesystem;

class KilledRecording : public test::RecorderTest {
 protected:
  // Nobody holds a file of the copy.
  std::string Kill(const std::string& name) {
    recorder_.WaitRecorded(30'000);
    const std::string copy = left_.File(name);
    fs::copy(site_.folder.Beside(""), copy, fs::copy_options::recursive);
    return copy;
  }
  cms::RepairReport Repair(const std::string& root, bool forgetMissing = false) {
    return cms::RepairRecordings({L"..\\rec"}, [](const auto&) { return true; },
                                 {.dataRoot = root, .forgetMissing = forgetMissing});
  }
  void Seconds(int seconds, bool mark = false) {
    for (int i = 0; i < seconds; ++i) {
      do {
        EXPECT_TRUE(source_.Record(recorder_, mark));
      } while (!source_.NextIsKey());
      site_.clock.Advance(1);
    }
  }

  const test::TemporaryFolder left_;
};

// Also one that began in a file before the last one; an event that was over has its row already.
TEST_F(KilledRecording, TheEventThatRanGetsTheRowThatItWouldHaveHad) {
  Begin();
  Seconds(2);
  ASSERT_TRUE(recorder_.StartDeviceEventRecord(0));
  Seconds(3, true);
  recorder_.StopDeviceEventRecord(0);
  Seconds(20);
  ASSERT_TRUE(recorder_.StartDeviceEventRecord(0));
  Seconds(3, true);
  recorder_.SetForceChangeFile();
  Seconds(4, true);
  const std::string left = Kill("kill");
  recorder_.StopRecordAll();
  const std::string whole = site_.Events();
  ASSERT_EQ(whole.size(), 2 * test::kEventBytes);
  EXPECT_EQ(test::ReadWholeFile(left + "/EventList0").size(), test::kEventBytes);

  const auto report = Repair(left);
  EXPECT_EQ(report.eventsAdded, 1u);
  EXPECT_EQ(report.recordsAdded, 1u);
  EXPECT_EQ(test::ReadWholeFile(left + "/EventList0"), whole);
  EXPECT_EQ(Repair(left).eventsAdded, 0u);
  EXPECT_EQ(test::ReadWholeFile(left + "/EventList0"), whole);
}

TEST_F(KilledRecording, TheEndOfAnEventIsKnownWithoutItsIndex) {
  Begin();
  Seconds(2);
  ASSERT_TRUE(recorder_.StartDeviceAlarmRecord(0));
  Seconds(6);
  const std::string left = Kill("kill");
  for (const auto& entry : fs::directory_iterator(left + "/rec")) {
    if (entry.path().extension() == ".idx") {
      fs::resize_file(entry.path(), fs::file_size(entry.path()) / 2);
    }
  }
  EXPECT_EQ(Repair(left).eventsAdded, 1u);
  const auto events = cms::ReadEventList(0, left).rows;
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, unsigned{cms::kRecordAlarm});
  EXPECT_EQ(events[0].start, 1'700'000'002);
  EXPECT_EQ(events[0].end, 1'700'000'007);
}

TEST_F(KilledRecording, SoundAloneGetsItsRecord) {
  Begin();
  for (int i = 0; i < 20; ++i) {
    source_.RecordAudio(recorder_);
    site_.clock.Advance(1);
  }
  const std::string left = Kill("kill");
  EXPECT_EQ(Repair(left).recordsAdded, 1u);
  EXPECT_EQ(Repair(left).recordsAdded, 0u);
  const auto records = cms::ReadRecordList(L"..\\rec", left).rows;
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].start, 1'700'000'010);
  EXPECT_EQ(records[0].end, 1'700'000'019);
}

// A file may come back with the disk that it is on: it is forgotten when somebody says so.
TEST_F(KilledRecording, RecordsWhoseFileIsGoneAreToldAndForgottenOnDemand) {
  Begin();
  Seconds(3);
  recorder_.SetForceChangeFile();
  Seconds(3);
  recorder_.StopRecordAll();
  const std::string left = Kill("gone");
  const auto before = cms::ReadRecordList(L"..\\rec", left).rows;
  ASSERT_EQ(before.size(), 2u);
  fs::remove(left + "/rec/" +
             fs::path(before[0].file.substr(before[0].file.rfind('\\') + 1)).string());
  EXPECT_EQ(Repair(left).missing, 1u);
  EXPECT_EQ(cms::ReadRecordList(L"..\\rec", left).rows.size(), 2u);
  EXPECT_EQ(Repair(left, true).missing, 1u);
  const auto after = cms::ReadRecordList(L"..\\rec", left).rows;
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after[0].file, before[1].file);
  const auto span = cms::ReadFolderSpan(L"..\\rec", left).rows;
  ASSERT_EQ(span.size(), 1u);
  EXPECT_EQ(span[0].start, before[1].start);
  EXPECT_EQ(Repair(left, true).missing, 0u);
}

}  // namespace
