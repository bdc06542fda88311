#include "cms/recording/drv_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "cms/recording/internal/recording_slots.h"
#include "cms/runtime/native_path.h"
#include "tests/recording/recorder_site.h"

namespace {

using test::CheckSeams;
using test::FrameSource;

class DrvWriter : public test::RecorderTest {
 protected:
  // Each of them is whole, and nothing is missing or doubled; the number of files.
  std::size_t SoundFiles() {
    recorder_.StopRecordAll();
    const auto files = site_.Files();
    EXPECT_EQ(CheckSeams(files), source_.NextSequence());
    return files.size();
  }
};

TEST_F(DrvWriter, FramesComeBackByteForByteWithTheirIndex) {
  Begin();
  for (int i = 0; i < 90; ++i) {
    EXPECT_TRUE(source_.Record(recorder_));
    EXPECT_TRUE(source_.RecordAudio(recorder_));
    site_.clock.AdvanceMilliseconds(40);
    if (i % 25 == 24) {
      site_.clock.SetWall(1'700'000'001 + i / 25);
    }
  }
  recorder_.StopRecordAll();
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(CheckSeams(files), 91u);
  EXPECT_EQ(files[0].frames.size(), 180u);
  EXPECT_TRUE(files[0].name.starts_with("Rec_Site1_2023111"));
  for (const auto& frame : files[0].frames) {
    EXPECT_EQ(frame.payload,
              frame.audio ? std::string(160, '@') : source_.PayloadOf(frame.sequence));
  }
  // Times within a second grow with the clock.
  const auto& index = files[0].index;
  for (std::size_t i = 1; i < index.size(); ++i) {
    EXPECT_GT(index[i].milliseconds, index[i - 1].milliseconds) << i;
  }
  EXPECT_EQ(index[1].milliseconds % 1000, 40u);
  const auto status = recorder_.GetRecordingStatus();
  EXPECT_EQ(status.frames, 180u);
  EXPECT_EQ(status.keyFrames, 9u);
  EXPECT_EQ(status.state, cms::RecordingState::kIdle);
  EXPECT_EQ(status.bytes, std::filesystem::file_size(site_.Rec() + "/" + files[0].name));
}

TEST_F(DrvWriter, EveryKindOfChangeKeepsTheSeams) {
  Begin();
  const auto gop = [&] { EXPECT_TRUE(source_.RecordGop(recorder_)); };
  gop();
  for (int i = 0; i < 3; ++i) {
    source_.Record(recorder_);  // in the middle of a group of pictures
  }
  site_.clock.Advance(1);
  recorder_.SetForceChangeFile();
  while (!source_.NextIsKey()) {
    source_.Record(recorder_);
  }
  gop();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 2u);
  for (int i = 0; i < 3; ++i) {
    source_.Record(recorder_);
  }
  site_.clock.Advance(1);
  EXPECT_TRUE(recorder_.ChangeRecordFile());
  while (!source_.NextIsKey()) {
    source_.Record(recorder_);
  }
  gop();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 3u);
  // Within the second of the file before: that file goes on, and is changed as soon as it can be.
  recorder_.SetForceChangeFile();
  gop();
  EXPECT_TRUE(recorder_.ChangeRecordFile());
  gop();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 3u);
  site_.clock.Advance(1);
  gop();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 4u);
  // Another path, there and back.
  recorder_.ChangeRecordPath(test::ParamFor(2).path);
  gop();
  EXPECT_NE(recorder_.GetDrvPath().find(L"Rec_Site2_"), std::wstring::npos);
  recorder_.StopRecordAll();
  auto files = site_.Files();
  EXPECT_EQ(files.size(), 5u);
  EXPECT_EQ(CheckSeams(files), source_.NextSequence());
  EXPECT_EQ(site_.Records().size(), 5 * test::kRecordBytes);
}

TEST_F(DrvWriter, AFileThatTheStreamLeftSilentIsChangedByTheClock) {
  Begin();
  source_.RecordGop(recorder_);
  EXPECT_TRUE(recorder_.ChangeRecordFile());
  recorder_.Flush();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 1u);
  site_.clock.Advance(11);
  recorder_.Flush();
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 2u);
  EXPECT_EQ(site_.Records().size(), test::kRecordBytes);  // yesterday's file can be found
  source_.Record(recorder_);
  EXPECT_TRUE(recorder_.ChangeRecordFile());
  EXPECT_EQ(SoundFiles(), 2u);
}

TEST_F(DrvWriter, SizesAndFlushesAreStaggeredByPath) {
  auto& slots = cms::RecordingSlots::Instance();
  const auto slotOf = [&](int site) {
    return slots.Use(test::ParamFor(site).path, cms::WallSeconds());
  };
  const auto first = slotOf(1);
  const auto second = slotOf(2);
  for (const int number : {1, 2}) {
    const auto slot = number == 1 ? first : second;
    test::ClipSpec spec;
    spec.noise = true;
    spec.gop = 1;
    spec.frames = 20;
    FrameSource source(spec);
    FX::FX_DRVRecorder recorder;
    test::Prepare(recorder, test::ParamFor(number, 1));
    ASSERT_TRUE(recorder.StartInstNormalRecord(0));
    const std::string path =
        site_.Rec() + "/" +
        std::filesystem::path(cms::NativePath(recorder.GetDrvPath())).filename().string();
    // As much as the threshold allows waits in memory.
    std::uint64_t before = 0;
    while (std::filesystem::file_size(path) == 0) {
      before = recorder.GetDrvOffset();
      ASSERT_TRUE(source.Record(recorder));
      test::WaitForDisk();
    }
    EXPECT_EQ(std::filesystem::file_size(path), before);
    EXPECT_LE(before, slot.FlushThreshold());
    EXPECT_GT(recorder.GetDrvOffset(), slot.FlushThreshold());
    // The first key frame behind limit and stagger begins the next file.
    site_.clock.Advance(1);
    std::uint64_t size = 0;
    while (recorder.GetRecordingStatus().files == 1) {
      size = recorder.GetDrvOffset();
      ASSERT_TRUE(source.Record(recorder));
    }
    recorder.StopRecordAll();
    test::WaitForDisk();
    EXPECT_EQ(std::filesystem::file_size(path), size);
    const std::uint64_t limit = (1u << 20) + slot.SizeStagger();
    EXPECT_GE(size, limit);
    EXPECT_LT(size, limit + 100'000);
  }
  EXPECT_EQ(first.FlushThreshold(), 449u * 1024);
  EXPECT_EQ(second.FlushThreshold(), 450u * 1024);
  EXPECT_EQ(first.SizeStagger(), 0u);
  EXPECT_EQ(second.SizeStagger(), 524'288u);
  cms::RecordingSlots fresh;
  for (unsigned i = 0; i < 130; ++i) {
    EXPECT_EQ(fresh.Use(std::to_wstring(i), 7).number, i % 64);
  }
  EXPECT_EQ(fresh.Use(L"3", 9).startTime, 7);
  EXPECT_EQ(fresh.Use(L"0", 9).FlushThreshold(), 449u * 1024);
  EXPECT_EQ(fresh.Use(L"63", 9).FlushThreshold(), CLFX::CLFXDRVWriter::kBufferSize);
  // The paths of days that are over give their slots back.
  constexpr std::int64_t kWrittenDay = 86'400;
  EXPECT_EQ(fresh.Use(L"5", kWrittenDay).number, 5u);
  EXPECT_EQ(fresh.Use(L"another day's", 2 * kWrittenDay + 100).number, 0u);
  EXPECT_EQ(fresh.Use(L"5", 2 * kWrittenDay + 100).startTime, 7);
}

TEST_F(DrvWriter, AStoppedRecordingIsContinuedAtItsEnd) {
  for (int i = 0; i < 5; ++i) {
    Begin();
    EXPECT_EQ(recorder_.GetRecordingStatus().state, cms::RecordingState::kWaitingForKeyFrame);
    const std::uint32_t offset = recorder_.GetDrvOffset();
    EXPECT_EQ(offset > 0, i > 0);
    EXPECT_TRUE(source_.RecordGop(recorder_));
    EXPECT_GT(recorder_.GetDrvOffset(), offset);
    recorder_.StopScheNormalRecord(0);
    EXPECT_EQ(recorder_.GetDrvOffset(), 0u);
    site_.clock.Advance(60);
  }
  EXPECT_EQ(SoundFiles(), 1u);
  EXPECT_EQ(site_.Records().size(), 5 * test::kRecordBytes);
}

TEST_F(DrvWriter, FramesInFrontOfTheFirstKeyFrameAreDroppedAndCounted) {
  source_.Record(recorder_);  // nothing runs: not even counted
  Begin();
  for (int i = 0; i < 9; ++i) {
    EXPECT_FALSE(source_.Record(recorder_));
    EXPECT_FALSE(source_.RecordAudio(recorder_));
  }
  EXPECT_TRUE(source_.RecordGop(recorder_));
  EXPECT_EQ(recorder_.GetRecordingStatus().waitingFrames, 18u);
  recorder_.StopRecordAll();
  EXPECT_FALSE(source_.Record(recorder_));  // a key frame does not begin it again
  EXPECT_FALSE(recorder_.IsRecording());
  EXPECT_EQ(CheckSeams(site_.Files(), 11), 21u);
}

TEST_F(DrvWriter, LimitsBelowOneStartNothingAndLeaveTheFileClosed) {
  Begin();
  source_.RecordGop(recorder_);
  const auto path = test::ParamFor(1);
  EXPECT_FALSE(recorder_.StartRecord(path.path, 0, 1, 0, nullptr));
  EXPECT_FALSE(recorder_.IsRecording());
  EXPECT_EQ(SoundFiles(), 1u);
  EXPECT_FALSE(recorder_.StartRecord(path.path, 1, 0, 0, nullptr));
  EXPECT_FALSE(recorder_.StartRecord(L"", 1, 1, 0, nullptr));
  EXPECT_FALSE(recorder_.StartRecord(nullptr, 1, 1, 0, nullptr));
  const std::wstring deep(300, L'x');
  EXPECT_FALSE(recorder_.StartRecord((L"..\\" + deep).c_str(), 1, 1, 0, nullptr));
  EXPECT_EQ(recorder_.GetRecordingStatus().lastError, ENAMETOOLONG);
}

TEST_F(DrvWriter, AtMostTheFlushAgeWaitsInMemory) {
  Begin();
  const std::string path = cms::NativePath(recorder_.GetDrvPath());
  source_.RecordGop(recorder_);
  const std::uint64_t first = recorder_.GetDrvOffset();
  site_.clock.AdvanceMilliseconds(cms::kFlushAgeMilliseconds - 1);
  recorder_.Flush();
  test::WaitForDisk();
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
  source_.RecordGop(recorder_);  // younger frames do not make the older ones wait
  const std::uint64_t both = recorder_.GetDrvOffset();
  EXPECT_GT(both, first);
  site_.clock.AdvanceMilliseconds(1);
  recorder_.Flush();
  test::WaitForDisk();
  EXPECT_EQ(std::filesystem::file_size(path), both);
  EXPECT_EQ(test::ReadRecordings(site_.Rec())[0].index.size(), 20u);
  recorder_.Flush(0);
  EXPECT_EQ(SoundFiles(), 1u);
}

}  // namespace
