// A process that ends while it records: what was accepted is in its file, with its records.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/recording/recorder_site.h"

namespace {

constexpr int kGroups = 3;

// In a process of its own, which works in the folder. The recorder is a static object, or one that
// nobody destroys.
TEST(RecorderExit, DISABLED_Records) {
  const char* const how = std::getenv("RECORDER_EXIT");
  ASSERT_NE(how, nullptr);
  static FX::FX_DRVRecorder* left = nullptr;
  FX::FX_DRVRecorder* recorder = nullptr;
  if (std::string(how) == "static") {
    static FX::FX_DRVRecorder object;
    recorder = &object;
  } else {
    left = new FX::FX_DRVRecorder;
    recorder = left;
  }
  test::Prepare(*recorder);
  ASSERT_TRUE(recorder->StartScheNormalRecord(0));
  ASSERT_TRUE(recorder->StartDeviceEventRecord(0));
  test::FrameSource source;
  for (int i = 0; i < kGroups; ++i) {
    ASSERT_TRUE(source.RecordGop(*recorder));
  }
  std::exit(0);
}

class RecorderExitBy : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(RecorderExit, RecorderExitBy, testing::Values("static", "exit"));

TEST_P(RecorderExitBy, WhatWasAcceptedIsOnDisk) {
  const test::WorkFolder folder;
  std::filesystem::create_directories(folder.Beside("rec"));
  const pid_t child = fork();
  if (child == 0) {
    setenv("RECORDER_EXIT", GetParam(), 1);
    execl("/proc/self/exe", "child", "--gtest_also_run_disabled_tests",
          "--gtest_filter=RecorderExit.DISABLED_Records", "--gtest_brief=1", nullptr);
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(test::CheckSeams(test::ReadRecordings(folder.Beside("rec"))), kGroups * 10 + 1u);
  EXPECT_EQ(test::ReadWholeFile(folder.Beside("rec/RecordDB")).size(), test::kRecordBytes);
  EXPECT_EQ(test::ReadWholeFile(folder.Beside("EventList0")).size(), test::kEventBytes);
}

}  // namespace
