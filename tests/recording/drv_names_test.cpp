// Which file a recording goes into, and what stands in front of it.
#include <gtest/gtest.h>

#include <algorithm>

#include "cms/recording/drv_writer.h"
#include "cms/runtime/native_path.h"
#include "tests/recording/recorder_site.h"

namespace {

using test::CheckSeams;
using test::FrameSource;

using DrvNames = test::RecorderTest;

TEST_F(DrvNames, NamesThatSomebodyHoldsArePassedOver) {
  // Two recorders of one path begin in the same second, and change in the same second.
  FX::FX_DRVRecorder other;
  FrameSource otherSource;
  test::Prepare(other);
  Begin();
  ASSERT_TRUE(other.StartScheNormalRecord(0));
  EXPECT_NE(recorder_.GetDrvPath(), other.GetDrvPath());
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(source_.RecordGop(recorder_));
    EXPECT_TRUE(otherSource.RecordGop(other));
    recorder_.SetForceChangeFile();
    other.SetForceChangeFile();
    site_.clock.Advance(i);
  }
  recorder_.StopRecordAll();
  other.StopRecordAll();
  std::size_t frames = 0;
  for (const auto& file : site_.Files()) {
    frames += file.frames.size();
    EXPECT_EQ(file.frames[0].type, 1u);
  }
  EXPECT_EQ(frames, 80u);
}

TEST_F(DrvNames, AClockThatStepsBackOverwritesNothing) {
  Begin();
  for (const int step : {5, -3, -2, 4, -60, 0, 3600, -3600}) {
    EXPECT_TRUE(source_.RecordGop(recorder_));
    site_.clock.SetWall(site_.clock.WallSeconds() + step);
    recorder_.SetForceChangeFile();
  }
  EXPECT_TRUE(source_.RecordGop(recorder_));
  recorder_.StopRecordAll();
  std::vector<std::uint32_t> sequences;
  for (const auto& file : site_.Files()) {
    for (const auto& frame : file.frames) {
      sequences.push_back(frame.sequence);
    }
  }
  std::sort(sequences.begin(), sequences.end());
  ASSERT_EQ(sequences.size(), 90u);
  for (std::uint32_t i = 0; i < 90; ++i) {
    EXPECT_EQ(sequences[i], i + 1);
  }
}

TEST_F(DrvNames, StreamHeadersBeginNewFilesAlone) {
  auto param = test::ParamFor(1);
  param.secondLimit = 2;
  const std::vector<std::uint8_t> twelve(12, 'a');
  const std::vector<std::uint8_t> large(136, 'b');
  const std::vector<std::uint8_t> codec(40, 'c');
  recorder_.SetStreamHeaders(twelve, large, codec);
  Begin(param);
  const std::string path = cms::NativePath(recorder_.GetDrvPath());
  source_.RecordGop(recorder_);
  recorder_.StopRecordAll();
  test::WaitForDisk();
  EXPECT_TRUE(test::ReadWholeFile(path).starts_with(std::string(12, 'a') + std::string(40, 'c')));
  EXPECT_EQ(test::ReadDrv(path, 52).size(), 10u);
  EXPECT_EQ(test::ReadIdx(path.substr(0, path.size() - 3) + "idx")[0].offset, 52u);
  Begin(param);  // the same file goes on
  source_.RecordGop(recorder_);
  recorder_.StopRecordAll();
  test::WaitForDisk();
  EXPECT_EQ(test::ReadDrv(path, 52).size(), 20u);
  site_.clock.Advance(1);
  recorder_.SetStreamHeaders({}, large, {});
  Begin(param);
  source_.RecordGop(recorder_);
  recorder_.SetForceChangeFile();
  source_.RecordGop(recorder_);
  const std::string second = cms::NativePath(recorder_.GetDrvPath());
  recorder_.StopRecordAll();
  test::WaitForDisk();
  EXPECT_NE(second, path);
  EXPECT_EQ(test::ReadDrv(second, 136).size(), 10u);
}

TEST_F(DrvNames, FoldersInAnyScriptAreMade) {
  Begin(test::ParamFor(7, 64, L"..\\rec\\Straße 東京 🎥\\20240229"));
  EXPECT_TRUE(source_.RecordGop(recorder_));
  recorder_.StopRecordAll();
  test::WaitForDisk();
  EXPECT_EQ(CheckSeams(test::ReadRecordings(site_.Rec() + "/Straße 東京 🎥/20240229")), 11u);
}

}  // namespace
