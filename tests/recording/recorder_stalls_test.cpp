// Recording while a disk does not answer: nobody waits for it, and what is lost is told.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <optional>
#include <thread>

#include "cms/recording/internal/database_locks.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/wait.h"

namespace {

using test::CheckSeams;
using test::FrameSource;
using HostClock = std::chrono::steady_clock;

// Far above what memory work takes on a busy machine, far below a disk that never answers.
constexpr std::chrono::seconds kAtOnce{5};

// Two sites; the first one's folder can be made to hang.
class RecorderStalls : public testing::Test {
 protected:
  struct Site {
    FrameSource source;
    FX::FX_DRVRecorder recorder;
  };

  RecorderStalls() {
    std::filesystem::create_directories(Slow());
    Prepare(slow_, test::ParamFor(1, 256, L"..\\slow"));
    Prepare(sound_, test::ParamFor(2));
  }
  ~RecorderStalls() override { faults_.io.HangAt(""); }

  static void Prepare(std::optional<Site>& site, const stRecordParam& param) {
    site.emplace();
    site->recorder.NeverWaitForDisk();
    test::Prepare(site->recorder, param);
  }
  std::string Slow() const { return site_.folder.Beside("slow"); }
  void Hang() {
    test::WaitForDisk();
    faults_.io.HangAt("../slow");
  }
  template <typename Call>
  void AtOnce(Call call) {
    const auto begin = HostClock::now();
    call();
    longest_ = std::max(longest_, HostClock::now() - begin);
  }
  static bool IsFailed(const Site& site) {
    return site.recorder.GetRecordingStatus().state == cms::RecordingState::kFailed;
  }

  test::RecordingFolder site_;
  test::FaultScope faults_;
  std::optional<Site> slow_;
  std::optional<Site> sound_;
  HostClock::duration longest_{};
};

TEST_F(RecorderStalls, ADiskThatHangsUnderOneSiteCostsTheOthersNothing) {
  for (auto* site : {&*slow_, &*sound_}) {
    ASSERT_TRUE(site->recorder.StartScheNormalRecord(0));
    EXPECT_TRUE(site->source.RecordGop(site->recorder));
    site->recorder.Flush(0);
  }
  Hang();
  for (int i = 0; i < 30; ++i) {
    for (auto* site : {&*slow_, &*sound_}) {
      // Everything that the receiving thread, the clock and a user interface do.
      AtOnce([&] { EXPECT_TRUE(site->source.RecordGop(site->recorder)); });
      AtOnce([&] { site->recorder.Flush(0); });
      AtOnce([&] { EXPECT_FALSE(IsFailed(*site)); });
      AtOnce([&] {
        if (i % 3 == 0) {
          site->recorder.SetForceChangeFile();
        } else if (i % 3 == 1) {
          EXPECT_TRUE(site->recorder.StartDeviceEventRecord(0));
        } else {
          site->recorder.StopDeviceEventRecord(0);
        }
      });
      AtOnce([&] {
        if (i % 7 == 6) {
          site->recorder.StopScheNormalRecord(0);
          EXPECT_TRUE(site->recorder.StartScheNormalRecord(0));
        }
      });
    }
    site_.clock.Advance(1);
  }
  EXPECT_LT(longest_, kAtOnce);
  // The sound site is on its disk with all that belongs to it, while the other one still hangs.
  sound_->recorder.StopRecordAll();
  EXPECT_TRUE(sound_->recorder.WaitRecorded(60'000));
  EXPECT_EQ(CheckSeams(test::ReadRecordings(site_.Rec())), sound_->source.NextSequence());
  EXPECT_GT(std::filesystem::file_size(site_.Rec() + "/RecordDB"), 0u);
  EXPECT_GT(faults_.io.Hanging(), 0);
  // What was accepted meanwhile is not lost either.
  faults_.io.HangAt("");
  slow_->recorder.StopRecordAll();
  EXPECT_TRUE(slow_->recorder.WaitRecorded(60'000));
  EXPECT_EQ(CheckSeams(test::ReadRecordings(Slow())), slow_->source.NextSequence());
  EXPECT_EQ(slow_->recorder.GetRecordingStatus().failures, 0u);
}

TEST_F(RecorderStalls, MemoryIsBoundedAndWhatDoesNotFitIsCounted) {
  test::ClipSpec large;
  large.noise = true;
  large.gop = 5;
  large.frames = 10;
  large.width = 640;
  large.height = 480;
  slow_->source = FrameSource(large);
  ASSERT_TRUE(slow_->recorder.StartScheNormalRecord(0));
  Hang();
  std::uint64_t accepted = 0;
  for (int i = 0; i < 100'000 && !IsFailed(*slow_); ++i) {
    AtOnce([&] { accepted += slow_->source.Record(slow_->recorder) ? 1u : 0u; });
  }
  const auto status = slow_->recorder.GetRecordingStatus();
  EXPECT_EQ(status.error, ETIMEDOUT);
  EXPECT_LT(status.bytes, 100u << 20);
  EXPECT_FALSE(slow_->source.Record(slow_->recorder));
  EXPECT_GT(slow_->recorder.GetRecordingStatus().failedFrames, 0u);
  // Others still have room of their own.
  ASSERT_TRUE(sound_->recorder.StartScheNormalRecord(0));
  EXPECT_TRUE(sound_->source.RecordGop(sound_->recorder));
  AtOnce([&] { EXPECT_TRUE(IsFailed(*slow_)); });
  EXPECT_LT(longest_, kAtOnce);

  faults_.io.HangAt("");
  EXPECT_TRUE(slow_->recorder.WaitRecorded(60'000));
  slow_->source.SkipToKeyFrame();
  const std::uint32_t resumed = slow_->source.NextSequence();
  EXPECT_TRUE(slow_->source.RecordGop(slow_->recorder));
  EXPECT_EQ(slow_->recorder.GetRecordingStatus().resumptions, 1u);
  EXPECT_FALSE(IsFailed(*slow_));
  slow_->recorder.StopRecordAll();
  test::WaitForDisk();
  const auto files = test::ReadRecordings(Slow());
  ASSERT_EQ(files.size(), 1u);
  ASSERT_EQ(files[0].frames.size(), accepted + 5);
  EXPECT_EQ(files[0].frames[accepted - 1].sequence, accepted);  // whole up to there
  EXPECT_EQ(files[0].frames[accepted].sequence, resumed);
  EXPECT_EQ(files[0].frames[accepted].type, 1u);
}

TEST_F(RecorderStalls, ByHandOneWaitsForTheFileButNotForEver) {
  faults_.io.AwayFrom("../slow");
  ASSERT_TRUE(slow_->recorder.StartInstNormalRecord(0));
  EXPECT_FALSE(slow_->recorder.WaitOpened(60'000));
  EXPECT_EQ(slow_->recorder.GetRecordingStatus().error, EHOSTUNREACH);
  faults_.io.AwayFrom("");
  EXPECT_TRUE(slow_->recorder.WaitOpened(60'000));  // asked once more, whatever the pause
  EXPECT_FALSE(IsFailed(*slow_));
  Hang();
  ASSERT_TRUE(sound_->recorder.StartInstNormalRecord(0));
  EXPECT_TRUE(sound_->recorder.WaitOpened(60'000));
  slow_->recorder.StopRecordAll();
  ASSERT_TRUE(slow_->recorder.StartInstNormalRecord(0));
  EXPECT_TRUE(slow_->recorder.WaitOpened(10));  // nobody knows yet
}

TEST_F(RecorderStalls, ARecorderOfASiteThatHangsIsDestroyedInTime) {
  ASSERT_TRUE(slow_->recorder.StartScheNormalRecord(0));
  EXPECT_TRUE(slow_->source.RecordGop(slow_->recorder));
  Hang();
  slow_->recorder.Flush(0);
  const std::uint32_t end = slow_->source.NextSequence();
  const auto begin = HostClock::now();
  slow_.reset();
  EXPECT_LT(HostClock::now() - begin, std::chrono::seconds(30));
  faults_.io.HangAt("");
  test::WaitForDisk();  // its thread went on alone
  EXPECT_EQ(CheckSeams(test::ReadRecordings(Slow())), end);
}

// A client application that looks at the event list for long does not hold up a stream.
TEST_F(RecorderStalls, EventsAreStoredBehindWhoeverHoldsTheirDatabase) {
  ASSERT_TRUE(sound_->recorder.StartDeviceEventRecord(0));
  EXPECT_TRUE(sound_->source.RecordGop(sound_->recorder));
  std::promise<void> held;
  std::promise<void> release;
  std::thread holder([&] {
    ScopeLock lock(cms::EventDatabaseLock());
    held.set_value();
    release.get_future().wait();
  });
  held.get_future().wait();
  AtOnce([&] { sound_->recorder.StopDeviceEventRecord(0); });
  AtOnce([&] { EXPECT_EQ(sound_->recorder.GetRecordingStatus().lateEvents, 1u); });
  EXPECT_FALSE(sound_->recorder.WaitRecorded(100));
  EXPECT_LT(longest_, kAtOnce);
  const auto isStored = [&](const char* list) {
    return !test::ReadWholeFile(site_.folder.Beside(list)).empty();
  };
  EXPECT_TRUE(test::WaitFor([&] { return isStored("rec/RecordDB"); }));  // another database
  EXPECT_FALSE(isStored("EventList0"));
  release.set_value();
  holder.join();
  EXPECT_TRUE(sound_->recorder.WaitRecorded(60'000));
  EXPECT_EQ(site_.Events().size(), test::kEventBytes);
}

}  // namespace
