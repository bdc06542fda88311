#include "cms/recording/keep/keep_recordings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <limits>
#include <memory>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/keep/protect_recordings.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "tests/recording/keep/recordings_maker.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/process_state.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kNoon = 1'700'000'000;
constexpr std::int64_t kDay = 86'400;

class KeepRecordings : public testing::Test {
 protected:
  KeepRecordings() { clock_.SetWall(kNoon + 10 * kDay); }
  cms::KeepReport Keep(cms::KeepOptions options) const {
    options.root = maker_.Root();
    return cms::KeepRecordings(options);
  }
  test::RecordingsMaker maker_;
  test::TestClock clock_;
};

TEST_F(KeepRecordings, DaysBytesAndSitesEachHaveTheirLimit) {
  std::uint64_t size = 0;
  for (int day = 0; day <= 10; ++day) {
    for (const std::uint32_t site : {1u, 2u}) {
      const std::string drv = maker_.Add(site, kNoon + day * kDay);
      size = fs::file_size(drv) + 11 * 32;
    }
  }
  // Sites may have days of their own; what ended within the last of them stays.
  auto report = Keep({.days = 8, .perSite = {{.site = 2, .days = 9}}});
  EXPECT_THAT(report.removal.removed, SizeIs(3));
  EXPECT_EQ(report.storage.files, 19u);
  EXPECT_EQ(report.storage.bytes, 19 * size);
  // The oldest of all go, then those of one site.
  report = Keep({.bytes = 17 * size + 1});
  ASSERT_THAT(report.removal.removed, SizeIs(2));
  EXPECT_EQ(report.removal.removed[0].site, 2u);
  EXPECT_EQ(report.removal.removed[0].start, kNoon + kDay);
  EXPECT_EQ(report.removal.removed[1].start, kNoon + 2 * kDay);
  report = Keep({.perSite = {{.site = 1, .bytes = 3 * size}}});
  EXPECT_EQ(report.storage.sites.at(0).files, 3u);
  EXPECT_EQ(report.storage.sites.at(1).files, 9u);
  // What is protected counts, and others go in its place; what cannot be reached is said.
  for (const std::uint32_t site : {1u, 2u}) {
    EXPECT_EQ(cms::ProtectRecordings(maker_.Root(), {site, kNoon + 9 * kDay, kNoon + 9 * kDay}),
              "");
  }
  report = Keep({.bytes = size});
  EXPECT_EQ(report.storage.bytes, 2 * size);
  EXPECT_EQ(report.storage.protectedBytes, 2 * size);
  EXPECT_THAT(report.removal.staying, SizeIs(2));
  ASSERT_THAT(report.left, SizeIs(1));
  EXPECT_EQ(report.left[0].over, size);
  EXPECT_EQ(maker_.Listed(), maker_.Present());
}

TEST_F(KeepRecordings, AFullDiskIsFreedAndToldOfInTime) {
  std::uint64_t size = 0;
  for (int i = 0; i < 8; ++i) {
    size = fs::file_size(maker_.Add(1, kNoon + 10 * kDay - 200 + i * 20)) + 11 * 32;
  }
  test::FaultScope faults;
  constexpr std::uint64_t kPlenty = 1u << 30;
  faults.io.LimitSpace(kPlenty);
  auto report = Keep({.freeBytes = kPlenty});
  EXPECT_THAT(report.removal.removed, IsEmpty());
  EXPECT_THAT(report.warnings, IsEmpty());
  ASSERT_THAT(report.storage.disks, SizeIs(1));
  EXPECT_EQ(report.storage.disks[0].free, kPlenty);
  EXPECT_NEAR(report.storage.disks[0].bytesPerSecond, static_cast<double>(8 * size) / 200, 1);
  EXPECT_GT(report.storage.disks[0].fullAt, kNoon + 10 * kDay);
  // A day's recordings are more than what is free and what the days would free.
  faults.io.LimitSpace(1'000'000);
  report = Keep({.days = 30});
  ASSERT_THAT(report.warnings, SizeIs(1));
  EXPECT_NE(report.warnings[0].text.find("a day's recordings take"), std::string::npos);
  EXPECT_LT(report.warnings[0].fullAt, kNoon + 11 * kDay);
  // The next round comes too late.
  faults.io.LimitSpace(1000);
  report = Keep({.freeBytes = 1000 + 2 * size - 1, .dryRun = true});
  EXPECT_THAT(report.removal.removed, SizeIs(2));
  EXPECT_EQ(maker_.Present().size(), 8u);
  report = Keep({.freeBytes = 1000 + 2 * size - 1});
  EXPECT_THAT(report.removal.removed, SizeIs(2));
  EXPECT_EQ(maker_.Present().size(), 6u);
  ASSERT_THAT(report.warnings, SizeIs(1));
  EXPECT_NE(report.warnings[0].text.find("keep more space free"), std::string::npos);
  report = Keep({.freeBytes = kPlenty});
  EXPECT_THAT(report.removal.removed, SizeIs(6));
  ASSERT_THAT(report.left, SizeIs(1));
  EXPECT_EQ(report.left[0].limit, cms::RemovalReason::kFreeSpace);
}

// Its other part was moved. Whichever part goes first, by whichever run, and whether the place of
// the moved ones is there: the event goes with the last part and not before.
TEST_F(KeepRecordings, AnEventAtTheSeamOfMovedOnesGoesWithItsLastPart) {
  const std::string nas = maker_.Root() + "/nas";
  const std::string away = maker_.Root() + "/away";
  test::RecordingsMaker::Append(maker_.Root() + "/RecFolderDB0", test::FolderBytes(u"..\\nas"));
  const auto own = [this](std::uint32_t site, bool moved) {
    return Keep({.days = 1, .perSite = {{.site = 3 - site, .days = 100}}, .moved = moved});
  };
  for (const std::uint32_t site : {1u, 2u}) {
    maker_.Add(site, kNoon + 5, nas + "/20231114");
    maker_.Add(site, kNoon + 15);
    maker_.AddEvent(site, kNoon + 10, kNoon + 20);
    maker_.AddEvent(site, kNoon + 20, kNoon + 22);  // of its own part alone
  }
  fs::rename(nas, away);
  EXPECT_THAT(own(1, true).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 3u);
  fs::rename(away, nas);
  EXPECT_THAT(own(2, false).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 2u);
  EXPECT_THAT(own(2, false).removal.removed, IsEmpty());
  EXPECT_EQ(maker_.Events(), 2u);
  // The moved part goes at last, and nothing is left to tell of what went.
  EXPECT_THAT(own(1, true).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 1u);
  EXPECT_THAT(own(2, true).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 0u);
  EXPECT_THAT(maker_.Listed(), IsEmpty());
  // The moved part first: the own one, removed by a run that does not look there, is waited for.
  maker_.Add(1, kNoon + 5, nas + "/20231114");
  maker_.AddEvent(1, kNoon + 10, kNoon + 20);
  EXPECT_THAT(own(1, true).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 0u);
  maker_.Add(1, kNoon + 15);
  maker_.AddEvent(1, kNoon + 10, kNoon + 20);
  EXPECT_THAT(own(1, false).removal.removed, SizeIs(1));
  EXPECT_EQ(maker_.Events(), 1u);
  own(1, true);
  EXPECT_EQ(maker_.Events(), 0u);
  EXPECT_THAT(maker_.Listed(), IsEmpty());
}

// Forty days of 64 sites by the recorders themselves, first with a limit of days, then of bytes:
// the disk stays within 1 % of its limit, and searches find what is there, neither more nor less.
TEST(KeepRecordingsWholeWay, FortyDaysOfSixtyFourSites) {
  constexpr int kSites = 64;
  constexpr int kDays = 40;
  constexpr int kKeptDays = 7;
  const test::TemporaryFolder folder("/dev/shm");
  const std::string root = folder.File("data");
  const fs::path before = fs::current_path();
  fs::create_directories(root + "/recordings");
  fs::current_path(root + "/recordings");
  CRecFolderDBWriter().WriterRecFolderDB(0, L"..\\recordings");
  cms::RecordingSlots::Instance() = {};
  test::TestClock clock;
  std::time_t start = kNoon;
  std::tm parts = *std::localtime(&start);
  parts.tm_hour = 1;  // all of a day's recordings are of one date
  start = std::mktime(&parts);
  clock.SetWall(start);
  {
    std::vector<std::unique_ptr<FX::FX_DRVRecorder>> recorders;
    for (int site = 0; site < kSites; ++site) {
      recorders.push_back(std::make_unique<FX::FX_DRVRecorder>());
    }
    test::FrameSource source;
    LocalPBSearchEngine search;
    std::size_t descriptors = 0;
    std::size_t heap = 0;
    std::uint64_t limit = 0;
    cms::KeepReport report;
    for (int day = 0; day < kDays; ++day) {
      const std::wstring path =
          L"..\\recordings\\" + cms::RecordingStamp(cms::WallSeconds()).substr(0, 8);
      for (int part = 0; part < 2; ++part) {  // a day's file is continued: two records
        for (int site = 0; site < kSites; ++site) {
          FX::FX_DRVRecorder& recorder = *recorders[static_cast<std::size_t>(site)];
          test::Prepare(recorder, test::ParamFor(site + 1, 64, path.c_str()));
          ASSERT_TRUE(recorder.StartDeviceEventRecord(0));
          ASSERT_TRUE(source.RecordGop(recorder));
          clock.Advance(1);
          ASSERT_TRUE(source.RecordGop(recorder));
          recorder.StopRecordAll();
        }
        clock.Advance(kDay / 4);
      }
      test::WaitForDisk();
      if (day == 1) {
        const std::int64_t now = cms::WallSeconds();
        ASSERT_EQ(cms::ProtectRecordings(root, {5, now - kDay, now}), "");
      }
      const bool byDays = day < kDays / 2;
      report = cms::KeepRecordings({.root = root, .days = byDays ? kKeptDays : 0, .bytes = limit});
      ASSERT_THAT(report.removal.errors, IsEmpty());
      EXPECT_EQ(report.removal.lostRecords, 0u);
      if (byDays) {
        const auto days = static_cast<std::uint64_t>(std::min(day, kKeptDays) + 1);
        const std::uint64_t old = day > kKeptDays + 1 ? 1 : 0;  // protected
        EXPECT_EQ(report.storage.files, days * kSites + old) << day;
        limit = day == kDays / 2 - 1 ? report.storage.bytes : 0;
      } else {
        EXPECT_LE(report.storage.bytes, limit) << day;
        EXPECT_GE(report.storage.bytes, limit / 100 * 99) << day;
      }
      search.searchByInterval(0, LocalPBSearchEngine::kFullRangeEnd - 1);
      search.loadEventList();
      std::size_t found = 0;
      for (const stPBTimeInfo& span : search.getNormalPBInfo()) {
        found += span.records.size();
      }
      EXPECT_EQ(found, 2 * report.storage.files);
      EXPECT_EQ(search.getEventTimes().size(), 2 * report.storage.files);
      EXPECT_EQ(fs::file_size(root + "/EventList0"), 2 * report.storage.files * test::kEventBytes);
      clock.Advance(kDay / 2 - 2 * kSites);
      if (day == kKeptDays + 3) {
        descriptors = test::OpenDescriptors();
        heap = test::HeapBytes();
      }
    }
    EXPECT_EQ(report.storage.sites.at(4).first, start + kDay + 4);
    EXPECT_GT(report.storage.protectedBytes, 0u);
    EXPECT_LE(test::OpenDescriptors(), descriptors);
    EXPECT_LE(test::HeapBytes(), heap + (1u << 20));
    // Nothing but what is listed lies there, in folders that are not empty.
    std::size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root + "/recordings")) {
      files += entry.path().extension() == ".drv" || entry.path().extension() == ".idx" ? 1 : 0;
      EXPECT_FALSE(entry.is_directory() && fs::is_empty(entry)) << entry.path();
    }
    EXPECT_EQ(files, 2 * report.storage.files);
  }
  test::WaitForDisk();
  fs::current_path(before);
}

}  // namespace
