// A recording process is killed at random moments: what it had handed to the disk is there, whole,
// and one repair makes everything around it fit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "tests/recording/database_bytes.h"
#include "tests/recording/recorder_child.h"
#include "tests/support/recording_reader.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kFolders[] = {"recordings/day1", "recordings/day2"};

// How many frames of each site the child had written when it was killed.
std::uint32_t RecordAndKill(const std::string& data, std::chrono::milliseconds life) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = test::StartRecorder({.data = data, .sites = {1, 2, 3}, .pipe = ends[1]});
  close(ends[1]);
  std::uint32_t safe = 0;
  while (safe == 0 && read(ends[0], &safe, sizeof safe) == ssize_t{sizeof safe}) {
  }
  EXPECT_GT(safe, 0u);  // it records
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

json Orvanta(const std::string& arguments) {
  const auto result = test::RunOrvanta(arguments + " --json");
  EXPECT_EQ(result.status, 0) << result.errors;
  return json::parse(result.output, nullptr, false);
}

std::map<std::string, std::string> Snapshot(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files[entry.path().string()] = test::ReadWholeFile(entry.path().string());
    }
  }
  return files;
}

// So that the repair has nobody to wait for.
void LetTimePass(const std::string& folder) {
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::minutes(1));
  }
}

// Every recording of the folder has one record, which tells its times, and the span is theirs.
void ExpectRecords(const std::string& folder, const std::vector<test::RecordedFile>& files) {
  const std::string list = test::ReadWholeFile(folder + "/RecordDB");
  ASSERT_EQ(list.size(), files.size() * test::kRecordBytes);
  std::map<std::u16string, std::size_t> records;
  for (std::size_t at = 0; at < list.size(); at += test::kRecordBytes) {
    const std::u16string path = test::TextAt(list, at, 260);
    EXPECT_TRUE(records.emplace(path.substr(path.rfind(u'\\') + 1), at).second);
  }
  std::int64_t start = INT64_MAX;
  std::int64_t end = 0;
  for (const auto& file : files) {
    const auto record = records.find(std::u16string(file.name.begin(), file.name.end()));
    ASSERT_NE(record, records.end()) << file.name;
    EXPECT_EQ(test::TimeAt(list, record->second + 720), file.frames.front().seconds);
    const std::int64_t last = std::max(file.frames.back().seconds, file.frames.front().seconds + 1);
    EXPECT_EQ(test::TimeAt(list, record->second + 728), last);
    start = std::min<std::int64_t>(start, file.frames.front().seconds);
    end = std::max(end, last);
  }
  EXPECT_EQ(test::ReadWholeFile(folder + ".DB"), test::SpanBytes(start, end));
}

class RecorderCrash : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, RecorderCrash, testing::Range(0u, 4u));

TEST_P(RecorderCrash, KilledAtAnyMomentOneRepairLeavesNothingToMend) {
  std::mt19937 random(GetParam());
  int torn = 0;
  for (int round = 0; round < 3; ++round) {
    const test::TemporaryFolder folder("/dev/shm");  // nothing is said about power cuts here
    const std::string data = folder.File("data");
    const std::uint32_t safe =
        RecordAndKill(data, std::chrono::milliseconds(random() % (round == 0 ? 1500 : 200)));
    if (round != 1 || GetParam() != 0) {
      LetTimePass(data);
    }
    std::set<std::string> files;
    for (const auto& [path, content] : Snapshot(data)) {
      files.insert(fs::path(path).extension() == ".drv" ? path : "");
    }
    files.erase("");
    const json repair = Orvanta("repair --data " + data);
    EXPECT_EQ(repair["files"], files.size());
    EXPECT_EQ(repair["failed"], 0);
    EXPECT_GE(repair["records_added"], 1);  // of what was open
    for (const auto& change : repair["changes"]) {
      torn += change["what"].get<std::string>().find("torn") != std::string::npos ? 1 : 0;
    }
    const auto repaired = Snapshot(data);
    EXPECT_EQ(Orvanta("repair --data " + data)["repaired"], 0);
    EXPECT_EQ(Snapshot(data), repaired);

    std::map<std::string, std::vector<test::RecordedFile>> sites;
    for (const char* name : kFolders) {
      const auto read = test::ReadRecordings(data + "/" + name);
      ExpectRecords(data + "/" + name, read);
      for (const auto& file : read) {
        sites[file.name.substr(0, 9)].push_back(file);
        if (&file != &read.back() && &file != &read.front()) {
          continue;
        }
        const json inspect = Orvanta("inspect " + data + "/" + name + "/" + file.name);
        EXPECT_EQ(inspect["frames"], file.frames.size());
        EXPECT_EQ(inspect["idx_records"], file.index.size());
        EXPECT_EQ(inspect["codec"], "H264");
        for (const char* fault : {"idx_mismatches", "skipped_bytes", "bad_checks"}) {
          EXPECT_EQ(inspect[fault], 0) << fault << file.name;
        }
      }
    }
    EXPECT_EQ(sites.size(), 3u);
    for (const auto& [site, read] : sites) {
      EXPECT_GT(test::CheckSeams(read), safe) << site;
    }
  }
  RecordProperty("torn files", torn);
}

}  // namespace
