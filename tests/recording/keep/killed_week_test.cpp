// A week of 64 sites under retention, in processes that are killed at random moments: what was
// recorded is whole or wholly gone, and nothing is gone that the limits allow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/keep/keep_recordings.h"
#include "cms/recording/recording_names.h"
#include "cms/recording/recording_repair.h"
#include "cms/runtime/wide_text.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/process_state.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

constexpr int kWeekSites = 64;
constexpr int kShortSites = 8;  // with a day of their own: sites 1 to 8
constexpr std::int64_t kHour = 3'600;
constexpr std::int64_t kUntilItRunsAgain = 60;  // behind what the killed one may have recorded
constexpr std::int64_t kWeekBegin = 1'700'000'000;
constexpr std::int64_t kWeekEnd = kWeekBegin + 7 * 24 * kHour;

// Between the files of each site; a longer run asks for shorter ones.
std::int64_t WeekStep() {
  const char* const asked = std::getenv("ORVANTA_WEEK_STEP");
  return asked != nullptr ? std::atoll(asked) : 4 * kHour;
}

// What a life tells behind each step.
struct StepTold {
  std::int64_t time = 0;
  std::size_t descriptors = 0;
  std::size_t heap = 0;
};

cms::KeepOptions WeekLimits(const std::string& root, std::uint64_t bytes) {
  cms::KeepOptions options{.root = root, .days = 30, .bytes = bytes};
  for (std::uint32_t site = 1; site <= kShortSites; ++site) {
    options.perSite.push_back({.site = site, .days = 1});
  }
  return options;
}

std::wstring DayFolder(std::int64_t time) {
  return L"..\\recordings\\" + cms::RecordingStamp(time).substr(0, 8);
}

// As a recorder's service does at its start: a kill tears files of the last days alone.
void MendWeek(const std::string& root) {
  std::set<std::wstring> days;
  for (const auto& entry : fs::directory_iterator(root + "/recordings")) {
    if (entry.is_directory()) {
      days.insert(L"..\\recordings\\" + entry.path().filename().wstring());
    }
  }
  std::vector<std::wstring> last(days.begin(), days.end());
  last.erase(last.begin(), last.end() - std::min<std::ptrdiff_t>(2, std::ssize(last)));
  const auto report =
      cms::RepairRecordings(last, [](const auto&) { return true; }, {.dataRoot = root});
  EXPECT_EQ(report.failed, 0u);
}

// Runs in the process that is killed.
TEST(KilledWeekLife, DISABLED_Records) {
  const std::string root = std::getenv("WEEK_ROOT");
  const std::int64_t begin = std::atoll(std::getenv("WEEK_TIME"));
  const auto bytes = static_cast<std::uint64_t>(std::atoll(std::getenv("WEEK_BYTES")));
  const int pipe = std::atoi(std::getenv("WEEK_PIPE"));
  const std::int64_t end = std::atoll(std::getenv("WEEK_END"));
  cms::SetDataRoot(root);
  fs::create_directories(root + "/recordings");
  test::TestClock clock;
  clock.SetWall(begin);
  MendWeek(root);
  std::atomic<bool> ended{false};
  std::thread keeper([&] {
    while (!ended) {
      EXPECT_THAT(cms::KeepRecordings(WeekLimits(root, bytes)).removal.errors, IsEmpty());
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  std::vector<std::unique_ptr<FX::FX_DRVRecorder>> recorders;
  for (int site = 1; site <= kWeekSites; ++site) {
    recorders.push_back(std::make_unique<FX::FX_DRVRecorder>());
    recorders.back()->RememberFinished();  // nothing that is finished is continued
    test::Prepare(*recorders.back(), test::ParamFor(site, 64, DayFolder(begin).c_str()));
    ASSERT_TRUE(recorders.back()->StartScheNormalRecord(0));
  }
  test::FrameSource source;
  for (; cms::WallSeconds() < end; clock.Advance(WeekStep())) {
    const std::wstring folder = DayFolder(cms::WallSeconds());
    for (int site = 1; site <= kWeekSites; ++site) {
      FX::FX_DRVRecorder& recorder = *recorders[static_cast<std::size_t>(site - 1)];
      recorder.SetRecParam(test::ParamFor(site, 64, folder.c_str()));
      ASSERT_TRUE(source.RecordGop(recorder));
      recorder.SetForceChangeFile();  // with the next one
      recorder.Flush(0);
      recorder.TakeFinished();
    }
    test::WaitForDisk();
    const StepTold step{cms::WallSeconds(), test::OpenDescriptors(), test::HeapBytes()};
    ASSERT_EQ(write(pipe, &step, sizeof step), ssize_t{sizeof step});
  }
  ended = true;
  keeper.join();
}

class KilledWeek : public testing::Test {
 protected:
  KilledWeek() {
    fs::create_directories(root_ + "/recordings");
    clock_.SetWall(kWeekBegin);
  }

  // Returns the steps that it told of.
  std::vector<StepTold> Live(std::int64_t begin, std::size_t steps, bool kill) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      setenv("WEEK_ROOT", root_.c_str(), 1);
      setenv("WEEK_TIME", std::to_string(begin).c_str(), 1);
      setenv("WEEK_BYTES", std::to_string(limit_).c_str(), 1);
      setenv("WEEK_PIPE", std::to_string(ends[1]).c_str(), 1);
      setenv("WEEK_END", std::to_string(end_).c_str(), 1);
      execl("/proc/self/exe", "child", "--gtest_also_run_disabled_tests",
            "--gtest_filter=KilledWeekLife.DISABLED_Records", "--gtest_brief=1", nullptr);
      _exit(1);
    }
    close(ends[1]);
    std::vector<StepTold> told;
    StepTold step;
    while (told.size() < steps && read(ends[0], &step, sizeof step) == ssize_t{sizeof step}) {
      told.push_back(step);
    }
    if (kill) {
      std::this_thread::sleep_for(std::chrono::microseconds(random_() % 150'000));
      ::kill(child, SIGKILL);
    }
    while (read(ends[0], &step, sizeof step) == ssize_t{sizeof step}) {
      told.push_back(step);
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(kill ? WIFSIGNALED(status) || status == 0 : status == 0) << status;
    for (const StepTold& each : told) {
      steps_.insert(each.time);
      clock_.SetWall(each.time);
    }
    return told;
  }

  // A repair waits for the record of a file that was just closed, by a clock that stands still
  // here.
  void LetTimePass() const {
    const auto before = std::chrono::file_clock::from_sys(
        std::chrono::sys_seconds(std::chrono::seconds(cms::WallSeconds() - 60)));
    for (const auto& entry : fs::recursive_directory_iterator(root_)) {
      fs::last_write_time(entry.path(), before);
    }
  }

  // Nothing torn, nothing listed that is not there, nothing missing that is to be there, and no
  // more than there may be.
  void Check(bool isKilled) {
    LetTimePass();
    MendWeek(root_);
    const auto report = cms::KeepRecordings(WeekLimits(root_, limit_));
    ASSERT_THAT(report.removal.errors, IsEmpty());
    std::multiset<std::string> files;
    std::size_t indexes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root_ + "/recordings")) {
      const fs::path& path = entry.path();
      EXPECT_FALSE(entry.is_directory() && fs::is_empty(path)) << path;
      EXPECT_NE(path.extension(), ".tmp") << path;
      indexes += path.extension() == ".idx" ? 1 : 0;
      if (path.extension() == ".drv") {
        files.insert(path.string());
        EXPECT_GT(entry.file_size(), 0u) << path;
        EXPECT_TRUE(fs::exists(fs::path(path).replace_extension("idx"))) << path;
      }
    }
    EXPECT_EQ(indexes, files.size());
    std::multiset<std::string> listed;
    std::map<std::int64_t, std::set<std::uint32_t>> recorded;  // the sites of each step
    for (std::int64_t day = kWeekBegin; day < end_ + 24 * kHour; day += 24 * kHour) {
      for (const auto& row : cms::ReadRecordList(DayFolder(day), root_).rows) {
        listed.insert(cms::PathInData(cms::WideFromUtf8(row.file), root_));
        recorded[row.start].insert(row.siteNumber);
      }
    }
    EXPECT_EQ(listed, files);
    LocalPBSearchEngine search;
    search.SetDataRoot(root_);
    search.searchByInterval(0, LocalPBSearchEngine::kFullRangeEnd - 1);
    std::multiset<std::string> found;
    for (const stPBTimeInfo& span : search.getNormalPBInfo()) {
      for (const auto& record : span.records) {
        std::string file;
        record.GetFileName(file);
        found.insert(cms::PathInData(cms::WideFromUtf8(file), root_));
      }
    }
    EXPECT_EQ(found, files);

    EXPECT_EQ(report.storage.files, files.size());
    if (limit_ > 0) {
      EXPECT_LE(report.storage.bytes, limit_);
      // Midnight takes a day of the short sites, which the next step makes up for.
      EXPECT_GE(report.storage.bytes, limit_ / 100 * (isKilled ? 90 : 99));
    }
    const std::int64_t oldest = recorded.empty() ? 0 : recorded.begin()->first;
    for (const std::int64_t step : steps_) {
      for (std::uint32_t site = kShortSites + 1; step > oldest && site <= kWeekSites; ++site) {
        EXPECT_TRUE(recorded[step].contains(site)) << "site " << site << " at " << step;
      }
    }
    for (const auto& [time, sites] : recorded) {
      const bool isOfShort = !sites.empty() && *sites.begin() <= kShortSites;
      EXPECT_FALSE(isOfShort && time < cms::WallSeconds() - 48 * kHour) << time;
    }
    files_ = report.storage.files;
    bytes_ = report.storage.bytes;
  }

  const test::TemporaryFolder folder_{"/dev/shm"};
  const std::string root_ = folder_.File("data");
  test::TestClock clock_;
  std::mt19937 random_{11};
  std::uint64_t limit_ = 0;
  std::int64_t end_ = kWeekEnd;
  std::set<std::int64_t> steps_;  // that were told of
  std::size_t files_ = 0;
  std::uint64_t bytes_ = 0;
};

TEST_F(KilledWeek, OfSixtyFourSitesWithinTheirLimits) {
  int lives = 0;
  std::int64_t next = kWeekBegin;
  while (next < kWeekEnd - 2 * 24 * kHour) {
    ++lives;
    ASSERT_FALSE(Live(next, 2 + random_() % 6, true).empty());
    next = *steps_.rbegin() + WeekStep() + kUntilItRunsAgain;
    ASSERT_NO_FATAL_FAILURE(Check(true));
    if (limit_ == 0 && steps_.size() >= 12) {
      limit_ = bytes_;  // of two days
    }
    if (HasFailure()) {
      FAIL() << "life " << lives;
    }
  }
  EXPECT_GT(lives, 3);
  // The last one lives to the end of the week, for two days at least, whatever the killed ones ran
  // ahead, and holds no more then than in its beginning.
  end_ = std::max(kWeekEnd, next + 2 * 24 * kHour);
  const auto told = Live(next, 0, false);
  ASSERT_GT(told.size(), 8u);
  Check(false);
  EXPECT_LE(told.back().descriptors, told[4].descriptors + 2);  // of a removal that runs
  EXPECT_LE(told.back().heap, told[4].heap + (1u << 20));
  EXPECT_GT(steps_.size() * kWeekSites, 2'500u);
}

}  // namespace
