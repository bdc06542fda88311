// Processes of their own that record; and two of them in one folder, beside a repair.
#include "tests/recording/recorder_child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "tests/recording/recorder_site.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::uint64_t Number(const char* name) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
}

// Runs in the process that StartRecorder starts.
TEST(RecorderChild, DISABLED_Records) {
  const std::string work = std::string(std::getenv("RECORDER_DATA")) + "/recordings";
  fs::create_directories(work);
  fs::current_path(work);
  const auto channel = static_cast<unsigned>(Number("RECORDER_CHANNEL"));
  const std::uint64_t limit = Number("RECORDER_FRAMES");
  const int pipe = static_cast<int>(Number("RECORDER_PIPE"));
  std::vector<std::unique_ptr<FX::FX_DRVRecorder>> recorders;
  std::stringstream sites(std::getenv("RECORDER_SITES"));
  for (int site = 0; sites >> site;) {
    recorders.push_back(std::make_unique<FX::FX_DRVRecorder>());
    test::Prepare(
        *recorders.back(),
        test::ParamFor(site, 1, site % 2 == 1 ? L"..\\recordings\\day1" : L"..\\recordings\\day2"));
    ASSERT_TRUE(recorders.back()->StartScheNormalRecord(channel));
  }
  std::atomic<std::uint32_t> recorded{0};
  std::atomic<bool> done{false};
  std::thread clock([&] {
    while (!done) {
      const std::uint32_t safe = recorded;
      for (auto& recorder : recorders) {
        recorder->Flush(0);
      }
      test::WaitForDisk();
      if (pipe != 0 && write(pipe, &safe, sizeof safe) < 0) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  test::ClipSpec spec;
  spec.noise = true;
  std::vector<test::FrameSource> sources(recorders.size(), test::FrameSource(spec, channel));
  for (std::uint32_t frame = 1; limit == 0 || frame <= limit; ++frame) {
    for (std::size_t i = 0; i < recorders.size(); ++i) {
      ASSERT_TRUE(sources[i].Record(*recorders[i]));
    }
    recorded = frame;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  done = true;
  clock.join();
  for (auto& recorder : recorders) {
    recorder->StopRecordAll();
    EXPECT_EQ(recorder->GetRecordingStatus().failures, 0u)
        << recorder->GetRecordingStatus().lastError;
  }
  recorders.clear();
  test::WaitForDisk();
}

json OrvantaProgram(const std::string& arguments) {
  const auto result = test::RunOrvanta(arguments + " --json");
  EXPECT_EQ(result.status, 0) << result.errors;
  return json::parse(result.output, nullptr, false);
}

// Two processes record the same site, and one of them another one, into one folder, while a third
// repairs it again and again: no file is written by two at a time, every frame is on the disk once,
// every file has its record, and there is nothing to repair.
TEST(RecorderProcesses, TwoRecordIntoOneFolderBesideARepair) {
  const test::TemporaryFolder folder;
  const std::string data = folder.File("data");
  fs::create_directories(data + "/recordings");
  constexpr std::uint32_t kFrames = 900;
  std::vector<pid_t> children;
  children.push_back(
      test::StartRecorder({.data = data, .sites = {1, 3}, .channel = 0, .frames = kFrames}));
  children.push_back(
      test::StartRecorder({.data = data, .sites = {1}, .channel = 1, .frames = kFrames}));
  std::uint64_t repairedMeanwhile = 0;
  for (const pid_t child : children) {
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
      const json repair = OrvantaProgram("repair --data " + data);
      EXPECT_EQ(repair["failed"], 0);
      repairedMeanwhile += repair["repaired"].get<std::uint64_t>();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(repairedMeanwhile, 0u);  // it found nothing that the recorders did not do themselves
  EXPECT_EQ(OrvantaProgram("repair --data " + data)["repaired"], 0);

  const auto files = test::ReadRecordings(data + "/recordings/day1");
  std::map<std::string, std::vector<std::uint32_t>> frames;  // by site and process
  std::map<std::string, int> begun;  // times that a file was begun or continued
  for (const auto& file : files) {
    auto record = file.index.begin();
    for (const auto& frame : file.frames) {
      const std::string source = file.name.substr(0, 9) + std::to_string(record->channel);
      begun[file.name] += record == file.index.begin() || record[-1].channel != record->channel;
      frames[source].push_back(frame.sequence);
      ++record;
    }
  }
  EXPECT_EQ(frames.size(), 3u);
  for (auto& [source, sequences] : frames) {
    std::sort(sequences.begin(), sequences.end());
    ASSERT_EQ(sequences.size(), kFrames) << source;
    EXPECT_EQ(sequences.front(), 1u);
    EXPECT_EQ(std::adjacent_find(sequences.begin(), sequences.end()), sequences.end()) << source;
  }
  std::map<std::string, int> records;
  const json databases = OrvantaProgram("db --data " + data);
  for (const auto& row : databases["records"]) {
    const auto path = row["file"].get<std::string>();
    ++records[path.substr(path.rfind('\\') + 1)];
  }
  EXPECT_EQ(records.size(), files.size());
  for (const auto& [file, count] : begun) {
    EXPECT_GE(records[file], count) << file;
  }
}

}  // namespace

pid_t test::StartRecorder(const RecorderJob& job) {
  std::string sites;
  for (const int site : job.sites) {
    sites += std::to_string(site) + " ";
  }
  const pid_t child = fork();
  if (child == 0) {
    setenv("RECORDER_DATA", job.data.c_str(), 1);
    setenv("RECORDER_SITES", sites.c_str(), 1);
    setenv("RECORDER_CHANNEL", std::to_string(job.channel).c_str(), 1);
    setenv("RECORDER_FRAMES", std::to_string(job.frames).c_str(), 1);
    setenv("RECORDER_PIPE", std::to_string(std::max(job.pipe, 0)).c_str(), 1);
    execl("/proc/self/exe", "child", "--gtest_also_run_disabled_tests",
          "--gtest_filter=RecorderChild.DISABLED_Records", "--gtest_brief=1", nullptr);
    _exit(1);
  }
  return child;
}
