// Recording while files fail: nothing that was written is lost, nothing leaks, it resumes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "tests/recording/recorder_site.h"
#include "tests/support/process_state.h"

namespace {

using test::CheckSeams;
using test::FrameSource;

// Destroyed in this order: the recorder, then the faults, then the folder.
class RecorderFaults : public testing::Test {
 protected:
  void Begin(int sizeMiB = 64) {
    recorder_.emplace();
    test::Prepare(*recorder_, test::ParamFor(1, sizeMiB));
  }
  void Tick(std::int64_t seconds = 1) {  // the owner's clock
    site_.clock.Advance(seconds);
    recorder_->Flush(0);
    test::WaitForDisk();
  }
  cms::RecordingStatus Status() const { return recorder_->GetRecordingStatus(); }
  // Ends the recording and waits for the disk.
  std::vector<test::RecordedFile> Files() {
    recorder_->StopRecordAll();
    test::WaitForDisk();
    Tick(100);
    return site_.Files();
  }

  test::RecordingFolder site_;
  test::FaultScope faults_;
  FrameSource source_;
  std::optional<FX::FX_DRVRecorder> recorder_;
};

TEST_F(RecorderFaults, AFullDiskStopsCleanlyAndRecordingResumesByItself) {
  Begin();
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  ASSERT_TRUE(recorder_->StartDeviceEventRecord(0));
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(source_.RecordGop(*recorder_));
    Tick();
  }
  const std::uint32_t safe = source_.NextSequence();
  faults_.io.LimitSpace(10'000);
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  Tick();
  source_.RecordGop(*recorder_);
  EXPECT_EQ(Status().state, cms::RecordingState::kFailed);
  EXPECT_EQ(Status().error, ENOSPC);
  EXPECT_GT(Status().failedFrames, 0u);
  EXPECT_FALSE(recorder_->IsRecording());
  for (int i = 0; i < 40; ++i) {  // no empty files while it lasts
    Tick();
    EXPECT_FALSE(source_.RecordGop(*recorder_));
  }
  EXPECT_EQ(Status().files, 1u);
  recorder_->StopDeviceEventRecord(0);  // its record finds no room either
  EXPECT_EQ(Status().lateEvents, 1u);

  faults_.io.LimitSpace(test::FaultyFileIo::kNever);
  source_.SkipToKeyFrame();
  Tick(31);
  const std::uint32_t resumed = source_.NextSequence();
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  EXPECT_EQ(Status().state, cms::RecordingState::kRecording);
  EXPECT_EQ(Status().error, 0);
  EXPECT_EQ(Status().resumptions, 1u);
  const auto files = Files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_GE(CheckSeams({files[0]}), safe);
  EXPECT_EQ(CheckSeams({files[1]}, resumed), resumed + 10);
  EXPECT_GT(Status().lostBytes, 0u);
  // Nothing is owed any more, and the record's times are those of the frames on disk.
  EXPECT_EQ(Status().lateRecords + Status().lateEvents, 0u);
  EXPECT_EQ(site_.Events().size(), test::kEventBytes);
  const std::string records = site_.Records();
  ASSERT_EQ(records.size(), 2 * test::kRecordBytes);
  for (std::size_t at : {std::size_t{0}, test::kRecordBytes}) {
    const bool first = test::TimeAt(records, at + 720) == files[0].frames[0].seconds;
    const auto& file = files[first ? 0 : 1];
    EXPECT_EQ(test::TimeAt(records, at + 720), file.frames.front().seconds);
    EXPECT_EQ(test::TimeAt(records, at + 728),
              std::max(file.frames.back().seconds, file.frames.front().seconds + 1));
  }
}

// The writes behind a close fail when nobody watches the file any more.
TEST_F(RecorderFaults, AFailureBehindTheCloseIsMendedToo) {
  Begin();
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  source_.RecordGop(*recorder_);
  Tick();
  source_.RecordGop(*recorder_);
  faults_.io.LimitSpace(1000);
  recorder_->StopRecordAll();
  test::WaitForDisk();
  faults_.io.LimitSpace(test::FaultyFileIo::kNever);
  Tick(6);  // mending it found no room at first
  EXPECT_EQ(Status().failures, 1u);
  EXPECT_EQ(Status().lastError, ENOSPC);
  EXPECT_GT(Status().lostBytes, 0u);
  const auto files = site_.Files();  // sound, with an index that fits
  EXPECT_GE(CheckSeams(files), 11u);
  EXPECT_EQ(Status().lateRecords, 0u);
}

// Operation N fails, for every N: alone, or with all that follow for a while.
class RecorderFaultsAt : public RecorderFaults, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, RecorderFaultsAt, testing::Bool());

TEST_P(RecorderFaultsAt, EveryOperation) {
  const bool forAWhile = GetParam();
  std::uint64_t operations = 0;
  for (std::uint64_t failing = 0; failing <= operations; ++failing) {
    std::filesystem::remove_all(site_.Rec());
    std::filesystem::create_directories(site_.Rec());
    std::filesystem::remove(site_.folder.Beside("EventList0"));
    site_.clock.Advance(1000);
    source_.SkipToKeyFrame();
    std::uint32_t next = source_.NextSequence();
    Begin();
    const std::size_t descriptors = test::OpenDescriptors();
    faults_.io.FailOperation(failing, EIO, forAWhile);
    bool started = recorder_->StartDeviceEventRecord(0);
    std::uint32_t frames = 0;
    for (int i = 0; i < 8 || (Status().error != 0 && i < 10); ++i) {
      if (i == 5 && forAWhile) {
        operations = failing == 0 ? 60 : operations;
        faults_.io.FailOperation(test::FaultyFileIo::kNever, 0);
        site_.clock.Advance(61);
      }
      started = started || recorder_->StartDeviceEventRecord(0);
      source_.RecordGop(*recorder_);
      frames += 10;
      if (i % 3 == 2) {
        recorder_->SetForceChangeFile();
      }
      Tick(2);
    }
    ASSERT_TRUE(started);
    ASSERT_EQ(Status().error, 0) << failing;
    auto files = Files();
    if (forAWhile) {  // a new file that could be neither used nor removed
      std::erase_if(files, [](const auto& file) { return file.frames.empty(); });
    }
    // One failure costs the frames of a few groups of pictures, and tears nothing.
    std::uint32_t found = 0;
    for (const auto& file : files) {
      ASSERT_FALSE(file.frames.empty()) << failing;
      ASSERT_GE(file.frames[0].sequence, next) << failing;
      next = CheckSeams({file}, file.frames[0].sequence);
      found += static_cast<std::uint32_t>(file.frames.size());
    }
    EXPECT_GE(found + (forAWhile ? 60 : 30), frames) << failing;
    EXPECT_EQ(Status().frames - Status().lost.frames, found) << failing;
    EXPECT_EQ(site_.Records().size(), files.size() * test::kRecordBytes) << failing;
    EXPECT_EQ(site_.Events().size(), test::kEventBytes) << failing;
    EXPECT_EQ(Status().lateRecords + Status().lateEvents, 0u) << failing;
    EXPECT_EQ(test::OpenDescriptors(), descriptors) << failing;
    EXPECT_EQ(faults_.io.OpenHandles(), 0) << failing;
    if (failing == 0 && !forAWhile) {
      operations = faults_.io.Operations() + 5;
    }
  }
}

TEST_F(RecorderFaults, AFolderThatVanishesIsMadeAgain) {
  Begin();
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  source_.RecordGop(*recorder_);
  Tick();
  std::filesystem::remove_all(site_.Rec());
  source_.RecordGop(*recorder_);
  Tick();
  EXPECT_EQ(Status().error, ENOENT);
  source_.SkipToKeyFrame();
  Tick(2);
  Tick(2);
  const std::uint32_t begin = source_.NextSequence();
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  EXPECT_EQ(CheckSeams(Files(), begin), begin + 10);
  EXPECT_EQ(site_.Records().size(), test::kRecordBytes);
  EXPECT_EQ(Status().lateRecords, 0u);
}

TEST_F(RecorderFaults, ADiskThatIsAwayIsTriedLessAndLess) {
  Begin();
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  source_.RecordGop(*recorder_);
  Tick();
  faults_.io.AwayFrom("../rec");
  faults_.io.FailWrites(1000, EIO);
  for (int i = 0; i < 100; ++i) {
    source_.RecordGop(*recorder_);
    Tick();
  }
  EXPECT_EQ(Status().error, EHOSTUNREACH);
  EXPECT_LT(Status().failures, 12u);
  faults_.io.AwayFrom("");
  faults_.io.FailWrites(0, 0);
  source_.SkipToKeyFrame();
  Tick(61);
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  EXPECT_EQ(Files().size(), 2u);
  EXPECT_EQ(Status().lateRecords, 0u);
}

// No room for another file: the one that is open takes the frames.
TEST_F(RecorderFaults, AFileThatCannotBeginLeavesTheOneBeforeOpen) {
  Begin();
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  source_.RecordGop(*recorder_);
  Tick();
  faults_.io.AwayFrom("../rec");
  recorder_->SetForceChangeFile();
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(source_.RecordGop(*recorder_));
    Tick();
    EXPECT_EQ(Status().state, cms::RecordingState::kRecording);
  }
  EXPECT_EQ(Status().lastError, EHOSTUNREACH);
  EXPECT_GT(Status().failures, 1u);
  EXPECT_LT(Status().failures, 10u);
  EXPECT_EQ(Status().files, 1u);
  faults_.io.AwayFrom("");
  Tick(31);
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  const auto files = Files();
  EXPECT_EQ(files.size(), 2u);
  EXPECT_EQ(CheckSeams(files), source_.NextSequence());
  EXPECT_EQ(site_.Records().size(), 2 * test::kRecordBytes);
  EXPECT_EQ(Status().lost.frames, 0u);
}

// Nobody may make files in the folder: other names do not help, and asking again takes its time.
TEST_F(RecorderFaults, AFolderWithoutRightsIsAskedOnceAndLessAndLess) {
  Begin();
  recorder_->NeverWaitForDisk();
  faults_.io.FailOperation(0, EACCES, true);
  ASSERT_TRUE(recorder_->StartDeviceEventRecord(0));
  test::WaitForDisk();
  EXPECT_LT(faults_.io.Operations(), 8u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(source_.RecordGop(*recorder_) && i > 0);
    if (i % 3 == 2) {  // the next event finds the same
      recorder_->StopDeviceEventRecord(0);
      ASSERT_TRUE(recorder_->StartDeviceEventRecord(0));
    }
    Tick();
    EXPECT_EQ(Status().error, EACCES);
  }
  EXPECT_LT(Status().failures, 12u);
  faults_.io.FailOperation(test::FaultyFileIo::kNever, 0);
  Tick(31);
  source_.SkipToKeyFrame();
  const std::uint32_t resumed = source_.NextSequence();
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  EXPECT_EQ(CheckSeams(Files(), resumed), resumed + 10);
}

TEST_F(RecorderFaults, WhereNothingCanBeLockedItIsRecordedUnlocked) {
  Begin();
  faults_.io.WithoutLocks(true);
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  EXPECT_TRUE(source_.RecordGop(*recorder_));
  EXPECT_EQ(CheckSeams(Files()), 11u);
  EXPECT_EQ(Status().failures, 0u);
}

TEST_F(RecorderFaults, ShortWritesLoseNothing) {
  Begin();
  faults_.io.LimitWrite(777);
  ASSERT_TRUE(recorder_->StartScheNormalRecord(0));
  for (int i = 0; i < 5; ++i) {
    source_.RecordGop(*recorder_);
    Tick();
  }
  EXPECT_EQ(CheckSeams(Files()), 51u);
  EXPECT_EQ(Status().failures, 0u);
}

}  // namespace
