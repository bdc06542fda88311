#include "cms/recording/data_root.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>

#include "cms/playback/clip/recording_export.h"
#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "cms/recording/recording_repair.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"
#include "tests/playback/clip_recording.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/recording_client.h"

namespace {

namespace fs = std::filesystem;

constexpr char kFront[] = "../recordings/20231114/Rec_Site1_";

test::ClipSpec RootClip() {
  test::ClipSpec spec;
  spec.width = test::kClipWidth;
  spec.height = 96;
  spec.frames = 50;
  return spec;
}

stRecordParam RootParam() {
  stRecordParam param;
  EXPECT_TRUE(param.SetPath(kFront));
  return param;
}

std::vector<stPBTimeInfo> Found(const std::string& root) {
  LocalPBSearchEngine engine;
  engine.SetDataRoot(root);
  engine.searchByInterval(LocalPBSearchEngine::kFullRangeStart, LocalPBSearchEngine::kFullRangeEnd);
  EXPECT_TRUE(engine.hasReadEverything());
  return engine.getNormalPBInfo();
}

void AddFound(test::Player& player, const std::string& root) {
  const auto spans = Found(root);
  ASSERT_EQ(spans.size(), 1u);
  cms::_MULTI_PB_SITE_CONFIG site;
  site.siteNumber = 1;
  site.dataRoot = root;
  for (const auto& record : spans[0].records) {
    site.files.push_back(record.GetFilenameW());
  }
  player.config.sites.push_back(site);
}

std::ptrdiff_t FilesIn(const std::string& folder) {
  return std::count_if(fs::recursive_directory_iterator(folder), fs::recursive_directory_iterator(),
                       [](const auto& entry) { return entry.is_regular_file(); });
}

TEST(DataRoot, PathsCountFromItsRecordings) {
  const std::string kRoot = "/srv/video";
  EXPECT_EQ(cms::PathInData(L"..\\EventList0", kRoot), "/srv/video/EventList0");
  EXPECT_EQ(cms::PathInData(L"20261121\\x.drv", kRoot + "/"),
            "/srv/video/recordings/20261121/x.drv");
  EXPECT_EQ(cms::PathInData(L"..\\..\\b", kRoot), "/srv/video/../b");
  EXPECT_EQ(cms::PathInData(L"..", kRoot), kRoot);
  EXPECT_EQ(cms::PathInData(L"..x", kRoot), "/srv/video/recordings/..x");
  EXPECT_EQ(cms::PathInData(L"C:\\a\\b", kRoot), "/a/b");
  EXPECT_EQ(cms::PathInData(L"..\\a"), "../a");
}

// Two folders in one process, which works in a third: recorded, searched and played at once; and
// one of them is moved afterwards.
TEST(DataRoot, TwoFoldersSideBySide) {
  const test::WorkFolder elsewhere;
  test::Player player;
  const std::string north = player.Path("north");
  const std::string south = player.Path("süd");
  {
    test::RecordingClient clients[] = {test::RecordingClient(RootParam()),
                                       test::RecordingClient(RootParam())};
    test::FrameSource sources[] = {test::FrameSource(RootClip()), test::FrameSource(RootClip())};
    sources[1].Next();
    sources[1].SkipToKeyFrame();  // its pictures begin with the second group
    for (int i = 0; i < 2; ++i) {
      clients[i].SetDataRoot(i == 0 ? north : south);
      clients[i].SetRecordDevice("10.0.0.1", "Höfe", 554);
      clients[i].TurnOnRecordingState(0, cms::kRecordSchedule);
      clients[i].TurnOnRecordingState(0, cms::kRecordAlarm);
    }
    for (int frame = 0; frame < 40; ++frame) {
      cms::EventMarks marks;
      marks.alarm = frame >= 10 && frame < 20;
      clients[0].Give(sources[0], marks);
      clients[1].Give(sources[1]);
      player.clock.AdvanceMilliseconds(100);
      player.clock.SetWall(1'700'000'000 + frame / 10);
    }
    for (auto& client : clients) {
      client.StopRecordAll();
      EXPECT_EQ(client.WaitRecorded(30'000), 1);
      ASSERT_EQ(client.TakeRecordedPaths().size(), 1u);
    }
  }  // the stops are in their gap logs
  EXPECT_EQ(FilesIn(elsewhere.Beside("")), 0);
  EXPECT_EQ(cms::ReadEventList(0, north).rows.size(), 1u);
  EXPECT_EQ(cms::ReadEventList(0, south).rows.size(), 0u);
  EXPECT_EQ(cms::ReadGapLog(0, north).rows.size(), 1u);
  EXPECT_EQ(cms::ReadGapLog(0, south).rows.size(), 1u);
  EXPECT_EQ(cms::ReadEventList(0).state, cms::DatabaseState::kMissing);
  for (const std::string& root : {north, south}) {
    const auto spans = Found(root);
    ASSERT_EQ(spans.size(), 1u) << root;
    EXPECT_TRUE(spans[0].records.at(0).GetFilenameW().starts_with(cms::SystemPath(kFront)));
    EXPECT_EQ(cms::Utf8FromWide(spans[0].records[0].GetSiteNameW()), "Höfe");
    const auto repair = cms::RepairRecordings(
        {L"..\\recordings\\20231114"},
        [](const auto& result) { return result.state == cms::RepairState::kSound; },
        {.dataRoot = root});
    EXPECT_TRUE(repair.complete && repair.files == 1 && repair.failedFolders.empty());
  }

  const std::string moved = player.Path("moved");
  fs::rename(north, moved);
  EXPECT_TRUE(Found(north).empty());
  AddFound(player, moved);
  AddFound(player, south);
  ASSERT_TRUE(player.Start()) << player.control.GetLastErrorText();
  EXPECT_EQ(player.Number(0), 0);
  EXPECT_EQ(player.Number(1), 10);
  const auto parts = cms::RecordingPartsOf(1, 0, 2'000'000'000, moved);
  ASSERT_EQ(parts.size(), 1u);
  EXPECT_TRUE(fs::exists(parts[0].path)) << parts[0].path;
}

TEST(DataRoot, ThatOfTheProcessServesWhoeverHasNone) {
  const test::WorkFolder elsewhere;
  const test::TemporaryFolder data;
  test::TestClock clock;
  cms::SetDataRoot(data.File(""));
  {
    test::RecordingClient client(RootParam());
    test::FrameSource source(RootClip());
    ASSERT_EQ(client.StartRecord(0, cms::kRecordAlarm), 1) << client.GetStartRecordError();
    for (int second = 0; second < 3; ++second) {
      client.Give(source);
      clock.Advance(1);
    }
    client.StopRecordAll();
    EXPECT_EQ(client.WaitRecorded(30'000), 1);
  }
  EXPECT_EQ(cms::ReadEventList(0).rows.size(), 1u);
  EXPECT_EQ(Found({}).size(), 1u);
  EXPECT_EQ(cms::RecordingPartsOf(1, 0, 2'000'000'000).size(), 1u);
  cms::SetDataRoot({});
  EXPECT_EQ(FilesIn(elsewhere.Beside("")), 0);
  EXPECT_EQ(Found({}).size(), 0u);
  EXPECT_EQ(Found(data.File("")).size(), 1u);
}

}  // namespace
