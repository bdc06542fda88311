// A recording process is killed at random moments: what it had handed to the disk is there, whole,
// and its index can be made to fit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "cms/recording/idx_file.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "tests/recording/recorder_site.h"

namespace {

constexpr char kFolder[] = "RECORDER_CRASH_FOLDER";
constexpr char kPipe[] = "RECORDER_CRASH_PIPE";

// The child: records two sites as fast as it can until it is killed, and tells the parent behind
// each flush up to which frame of the first all has been written.
TEST(RecorderCrash, DISABLED_Child) {
  const char* const folder = std::getenv(kFolder);
  ASSERT_NE(folder, nullptr);
  const int pipe = std::atoi(std::getenv(kPipe));
  std::filesystem::current_path(folder);
  FX::FX_DRVRecorder recorders[2];
  std::atomic<std::uint32_t> recorded{0};
  for (int i = 0; i < 2; ++i) {
    test::Prepare(recorders[i], test::ParamFor(i + 1, 1, i == 0 ? L"..\\rec" : L"..\\rec2"));
    ASSERT_TRUE(recorders[i].StartScheNormalRecord(0));
  }
  std::thread clock([&] {
    for (;;) {
      const std::uint32_t safe = recorded;
      recorders[0].Flush(0);
      recorders[1].Flush(0);
      test::WaitForDisk();
      if (write(pipe, &safe, sizeof safe) < 0) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  test::ClipSpec spec;
  spec.noise = true;
  test::FrameSource sources[2]{test::FrameSource(spec), test::FrameSource(spec)};
  for (;;) {
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(sources[i].Record(recorders[i]));
    }
    recorded = sources[0].NextSequence() - 1;
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
}

// What the child told last before it was killed.
std::uint32_t RunAndKill(const std::string& folder, std::chrono::milliseconds life) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    setenv(kFolder, folder.c_str(), 1);
    setenv(kPipe, std::to_string(ends[1]).c_str(), 1);
    execl("/proc/self/exe", "child", "--gtest_also_run_disabled_tests",
          "--gtest_filter=RecorderCrash.DISABLED_Child", "--gtest_brief=1", nullptr);
    _exit(1);
  }
  close(ends[1]);
  std::uint32_t safe = 0;
  EXPECT_EQ(read(ends[0], &safe, sizeof safe), ssize_t{sizeof safe});  // it records
  std::this_thread::sleep_for(life);
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  while (read(ends[0], &safe, sizeof safe) == ssize_t{sizeof safe}) {
  }
  close(ends[0]);
  return safe;
}

TEST(RecorderCrash, KilledAtAnyMomentWhatWasWrittenIsThere) {
  std::mt19937 random(7);
  std::size_t torn = 0;
  std::size_t files = 0;
  for (int round = 0; round < 12; ++round) {
    const test::WorkFolder folder;
    std::filesystem::create_directories(folder.Beside("rec2"));
    const std::uint32_t safe =
        RunAndKill(std::filesystem::current_path().string(),
                   std::chrono::milliseconds(random() % (round % 4 == 0 ? 2500 : 300)));
    for (const char* name : {"rec", "rec2"}) {
      for (const auto& entry : std::filesystem::directory_iterator(folder.Beside(name))) {
        if (entry.path().extension() != ".drv") {
          continue;
        }
        const std::string drv = entry.path().string();
        const std::string idx = cms::NativePath(cms::IdxPathOf(cms::SystemPath(drv)));
        const auto cut = cms::CutTornTail(cms::SystemFileIo(), drv);
        ASSERT_TRUE(cut.done);
        torn += cut.bytes > 0 ? 1 : 0;
        const auto rebuild = cms::RebuildIdx(cms::SystemFileIo(), drv, idx);
        ASSERT_TRUE(rebuild.done);
        // No record stood on disk before its frame, but for one that the kill tore in two.
        EXPECT_LE(rebuild.dropped, cut.bytes > 0 ? 1u : 0u);
        ++files;
      }
      const auto read = test::ReadRecordings(folder.Beside(name));
      const std::uint32_t next = test::CheckSeams(read);
      if (name == std::string("rec")) {
        EXPECT_GT(next, safe);
      }
    }
  }
  RecordProperty("torn files", static_cast<int>(torn));
  EXPECT_GT(files, 24u);  // some rolled over
}

}  // namespace
