// Receiving threads, the owner's clock and the client application at the same time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "tests/recording/recorder_site.h"

namespace {

TEST(RecorderThreads, StartsStopsChangesAndFlushesNeverTearAFile) {
  const test::WorkFolder folder;  // the system's clock: files change once a second at most
  constexpr int kSites = 3;
  FX::FX_DRVRecorder recorders[kSites];
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> recorded{0};
  std::vector<std::thread> threads;
  for (int site = 0; site < kSites; ++site) {
    test::Prepare(recorders[site], test::ParamFor(site + 1, 1));
    threads.emplace_back([&, site] {
      test::FrameSource source;
      // Until enough came through, whatever the others do.
      for (int i = 0; i < 100'000 && !stop; ++i) {
        recorded += source.Record(recorders[site]) ? 1u : 0u;
        source.RecordAudio(recorders[site]);
      }
    });
  }
  threads.emplace_back([&] {
    while (!stop) {
      for (auto& recorder : recorders) {
        recorder.Flush(0);
        recorder.ChangeRecordFile();
        (void)recorder.GetRecordingStatus();
      }
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 100 || (recorded == 0 && round < 10'000); ++round) {
    for (int site = 0; site < kSites; ++site) {
      auto& recorder = recorders[site];
      recorder.StartScheNormalRecord(0);
      recorder.StartDeviceEventRecord(0);
      recorder.SetPreAlarm(static_cast<std::uint8_t>(round), round % 2 == 0);
      recorder.SetForceChangeFile();
      recorder.ChangeRecordPath(test::ParamFor(10 * (site + 1) + round % 5).path);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      if (round % 3 == 0) {
        recorder.StopRecordAll();
      } else {
        recorder.StopDeviceEventRecord(0);
      }
    }
  }
  stop = true;
  for (auto& thread : threads) {
    thread.join();
  }
  std::uint64_t accepted = 0;
  for (auto& recorder : recorders) {
    recorder.StopRecordAll();
    recorder.Flush(0);
    const auto status = recorder.GetRecordingStatus();
    EXPECT_EQ(status.failures, 0u) << status.lastError;
    accepted += status.frames;
  }
  test::WaitForDisk();
  std::uint64_t video = 0;
  std::uint64_t frames = 0;
  for (const auto& file : test::ReadRecordings(folder.Beside("rec"))) {
    frames += file.frames.size();
    video += file.index.size();
    if (!file.frames.empty()) {
      EXPECT_EQ(file.frames[0].type, 1u);
      EXPECT_FALSE(file.frames[0].audio);
    }
  }
  EXPECT_EQ(video, recorded);
  EXPECT_EQ(frames, accepted);
  EXPECT_GT(recorded, 0u);
}

}  // namespace
