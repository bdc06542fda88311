// Ten thousand recordings go while a camera is recorded beside them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "cms/recording/data_root.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/keep/keep_recordings.h"
#include "cms/recording/keep/protect_recordings.h"
#include "cms/recording/keep/remove_recordings.h"
#include "cms/recording/keep/storage_use.h"
#include "tests/recording/keep/recordings_maker.h"
#include "tests/recording/recorder_site.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr int kManyDays = 10;
constexpr int kManyOfADay = 1'000;
constexpr auto kOfSeveralFiles = 4s;  // which are named after seconds, however quick the machine is
constexpr std::uint32_t kRunningSite = 99;
constexpr std::int64_t kManyBegin = 1'700'000'000;

// Milliseconds that it takes.
template <typename Work>
int Timed(Work work) {
  const auto begin = steady_clock::now();
  work();
  return static_cast<int>((steady_clock::now() - begin) / 1ms);
}

// The longest time that a frame was held up is RecordProperty "frame_us"; what each job on so many
// takes, in milliseconds, are the others.
TEST(ManyRemoved, NoFrameWaits) {
  test::RecordingsMaker maker;
  for (int day = 0; day < kManyDays; ++day) {
    for (int i = 0; i < kManyOfADay; ++i) {
      maker.Add(static_cast<std::uint32_t>(i % 32 + 1), kManyBegin + day * 86'400 + i / 32 * 20);
    }
    maker.AddEvent(1, kManyBegin + day * 86'400, kManyBegin + day * 86'400 + 5);
  }
  const std::string root = maker.Root();
  const std::string today = cms::Utf8FromWide(cms::RecordingStamp(cms::WallSeconds()).substr(0, 8));
  fs::create_directories(maker.Day(today));
  cms::SetDataRoot(root);
  cms::RecordingSlots::Instance() = {};
  const auto measure = [](const char* what, auto work) { RecordProperty(what, Timed(work)); };
  measure("storage_ms", [&] { EXPECT_EQ(cms::StorageUse(root).files, 10'000u); });
  measure("protect_ms", [&] {
    EXPECT_EQ(cms::ProtectRecordings(root, {5, kManyBegin, kManyBegin + 5}), "");
  });
  measure("keep_ms", [&] {
    EXPECT_TRUE(cms::KeepRecordings({.root = root, .bytes = 1ull << 40}).removal.removed.empty());
  });

  std::uint32_t first = 0;
  {
    FX::FX_DRVRecorder recorder;
    test::FrameSource source;
    test::Prepare(
        recorder,
        test::ParamFor(kRunningSite, 64, (L"..\\recordings\\" + cms::WideFromUtf8(today)).c_str()));
    ASSERT_TRUE(recorder.StartScheNormalRecord(0));
    first = source.NextSequence();
    std::atomic<bool> removed{false};
    std::thread remover([&] {
      measure("remove_ms", [&] {
        EXPECT_EQ(cms::RemoveRecordings({.root = root, .before = kManyBegin + 30 * 86'400})
                      .removed.size(),
                  9'999u);
      });
      removed = true;
    });
    std::vector<std::chrono::nanoseconds> waits;
    const auto until = steady_clock::now() + kOfSeveralFiles;
    while (!removed || steady_clock::now() < until) {
      const auto begin = steady_clock::now();
      ASSERT_TRUE(source.Record(recorder));
      waits.push_back(steady_clock::now() - begin);
      if (waits.size() % 50 == 0) {
        recorder.SetForceChangeFile();  // its record is stored beside those that go
      }
      std::this_thread::sleep_for(2ms);
    }
    remover.join();
    test::WaitForDisk();
    recorder.StopRecordAll();
    ASSERT_GT(waits.size(), 100u);
    std::ranges::sort(waits);
    RecordProperty("frame_us", static_cast<int>(waits.back() / 1us));
    RecordProperty("frame_us_of_99_percent",
                   static_cast<int>(waits[waits.size() * 99 / 100] / 1us));
    EXPECT_LT(waits.back(), 500ms);
    EXPECT_LT(waits[waits.size() * 99 / 100], 20ms);
  }
  test::WaitForDisk();
  const auto files = test::ReadRecordings(maker.Day(today));
  EXPECT_GT(files.size(), 2u);
  EXPECT_NO_THROW(test::CheckSeams(files, first));
  EXPECT_EQ(maker.Listed(), maker.Present());
  EXPECT_EQ(maker.Events(), 0u);
  cms::SetDataRoot("");
}

}  // namespace
