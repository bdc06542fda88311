#include "cms/recording/keep/remove_recordings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "cms/recording/keep/protect_recordings.h"
#include "cms/recording/keep/storage_use.h"
#include "tests/recording/keep/recordings_maker.h"
#include "tests/support/paths.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kRemovedNoon = 1'700'000'000;
constexpr std::int64_t kRemovedDay = 86'400;

std::string IdxOf(const std::string& drv) {
  return fs::path(drv).replace_extension("idx").string();
}

class RemoveRecordings : public testing::Test {
 protected:
  cms::RemovalReport Remove(cms::RemoveOptions options) const {
    options.root = maker_.Root();
    return cms::RemoveRecordings(options);
  }
  test::RecordingsMaker maker_;
};

// The days before go with all that tells of them; what is beside them stays byte for byte.
TEST_F(RemoveRecordings, AllThatBelongsToThemGoes) {
  for (const std::uint32_t site : {1u, 2u}) {
    for (int i = 0; i < 3; ++i) {
      maker_.Add(site, kRemovedNoon + i * 10);
      maker_.Add(site, kRemovedNoon + kRemovedDay + i * 10);
    }
    maker_.AddEvent(site, kRemovedNoon + 3, kRemovedNoon + 5);
    maker_.AddEvent(site, kRemovedNoon + 8,
                    kRemovedNoon + kRemovedDay + 2);  // its end is shown by what stays
    maker_.AddEvent(site, kRemovedNoon + kRemovedDay + 3, kRemovedNoon + kRemovedDay + 5);
  }
  maker_.AddEvent(3, kRemovedNoon + 3, kRemovedNoon + 5);  // nothing of its site is removed
  const std::string oldDay = fs::path(*maker_.Present().begin()).parent_path();
  const std::string newDay = fs::path(*maker_.Present().rbegin()).parent_path();
  const std::string list = test::ReadWholeFile(newDay + "/RecordDB");
  // A folder that recordings were moved to, files without a record and records without a file.
  const std::string moved = maker_.Root() + "/nas/20231114";
  const std::string movedFile = maker_.Add(1, kRemovedNoon + 100, moved);
  test::RecordingsMaker::Append(maker_.Root() + "/RecFolderDB0", test::FolderBytes(u"..\\nas"));
  maker_.Add(2, kRemovedNoon + 200, {}, false);
  const std::string bare = maker_.Add(2, kRemovedNoon + 300, {}, false);
  fs::remove(IdxOf(bare));  // its name and its last write tell its times
  fs::last_write_time(bare, std::chrono::file_clock::from_sys(std::chrono::sys_seconds(
                                std::chrono::seconds(kRemovedNoon + 310))));
  fs::remove(maker_.Add(2, kRemovedNoon + 400));
  test::WriteWholeFile(oldDay + "/movie.drv", "somebody's");

  EXPECT_EQ(cms::StorageUse(maker_.Root()).lostRecords, 1u);
  auto dry = Remove({.before = kRemovedNoon + kRemovedDay / 2, .dryRun = true});
  EXPECT_THAT(dry.removed, SizeIs(9));
  const auto report = Remove({.before = kRemovedNoon + kRemovedDay / 2});
  EXPECT_THAT(report.errors, IsEmpty());
  EXPECT_THAT(report.staying, IsEmpty());
  ASSERT_THAT(report.removed, SizeIs(9));
  EXPECT_EQ(report.removedBytes, dry.removedBytes);
  EXPECT_EQ(report.lostRecords, 1u);
  EXPECT_EQ(report.events, 2u);
  EXPECT_TRUE(std::is_sorted(report.removed.begin(), report.removed.end(),
                             [](const auto& a, const auto& b) { return a.start < b.start; }));
  EXPECT_FALSE(fs::exists(movedFile) || fs::exists(IdxOf(movedFile)) || fs::exists(moved));
  EXPECT_EQ(test::ReadWholeFile(oldDay + "/movie.drv"), "somebody's");  // which keeps its folder
  EXPECT_EQ(std::distance(fs::directory_iterator(oldDay), {}), 1);
  EXPECT_FALSE(fs::exists(oldDay + ".DB"));
  EXPECT_EQ(test::ReadWholeFile(newDay + "/RecordDB"), list);
  EXPECT_EQ(maker_.Events(), 5u);
  EXPECT_THAT(Remove({.before = kRemovedNoon + kRemovedDay / 2}).removed, IsEmpty());
}

TEST_F(RemoveRecordings, WhatIsAskedForIsUnderstood) {
  const std::string first = maker_.Add(1, kRemovedNoon);
  const std::string second = maker_.Add(2, kRemovedNoon);
  maker_.Add(1, kRemovedNoon + 100);
  EXPECT_THAT(Remove({}).errors, SizeIs(1));
  EXPECT_THAT(Remove({.files = {first}, .sites = {1}}).errors, SizeIs(1));
  EXPECT_THAT(cms::RemoveRecordings({.root = "relative", .sites = {1}}).errors, SizeIs(1));
  EXPECT_THAT(maker_.Present(), SizeIs(3));
  EXPECT_THAT(Remove({.sites = {1}, .before = kRemovedNoon + 50}).removed, SizeIs(1));
  EXPECT_THAT(Remove({.files = {second}}).removed, SizeIs(1));
  EXPECT_THAT(maker_.Present(), SizeIs(1));
  EXPECT_THAT(Remove({.files = {second, first}}).errors, SizeIs(2));  // they are gone already
  EXPECT_THAT(Remove({.sites = {1}}).removed, SizeIs(1));
  EXPECT_THAT(maker_.Listed(), IsEmpty());
}

TEST_F(RemoveRecordings, ProtectedAndRunningOnesStay) {
  const std::string running = maker_.Add(1, kRemovedNoon);
  const std::string named =
      maker_.Add(1, kRemovedNoon + 10);  // its neighbours share a second with it
  maker_.Add(1, kRemovedNoon + 20);
  maker_.Add(2, kRemovedNoon);
  const int handle = open(running.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(handle, LOCK_EX | LOCK_NB), 0);
  const auto spans = cms::SpansOfRecordings(maker_.Root(), {named, "/missing"});
  ASSERT_TRUE(spans.at(0) && !spans.at(1));
  EXPECT_EQ(cms::ProtectRecordings(maker_.Root(), *spans[0]), "");
  EXPECT_EQ(cms::ProtectRecordings(maker_.Root(), *spans[0]), "");  // once is enough
  EXPECT_THAT(cms::ReadProtectedSpans(maker_.Root()).spans, SizeIs(1));
  auto report = Remove({.sites = {1, 2}});
  EXPECT_THAT(report.removed, SizeIs(2));
  ASSERT_THAT(report.staying, SizeIs(2));
  EXPECT_EQ(report.staying[0].why, cms::StayReason::kRunning);
  EXPECT_EQ(report.staying[1].why, cms::StayReason::kProtected);
  EXPECT_TRUE(fs::exists(IdxOf(running)) && fs::exists(IdxOf(named)));
  close(handle);
  // Another name does not matter, nor does a part of the time.
  fs::rename(named, maker_.Day("20231114") + "/Rec_Site1_1.drv");
  fs::rename(IdxOf(named), maker_.Day("20231114") + "/Rec_Site1_1.idx");
  EXPECT_THAT(Remove({.sites = {1}}).staying, SizeIs(1));
  cms::SiteSpan middle{1, kRemovedNoon + 14, kRemovedNoon + 15};
  EXPECT_EQ(cms::ReleaseRecordings(maker_.Root(), middle), "");
  EXPECT_THAT(cms::ReadProtectedSpans(maker_.Root()).spans, SizeIs(2));
  EXPECT_THAT(Remove({.sites = {1}}).staying, SizeIs(1));
  EXPECT_EQ(cms::ReleaseRecordings(maker_.Root(), {1, 0, kRemovedNoon + kRemovedDay}), "");
  EXPECT_THAT(Remove({.sites = {1}}).staying, IsEmpty());
  EXPECT_THAT(maker_.Present(), IsEmpty());
  // What cannot be read may protect anything.
  maker_.Add(1, kRemovedNoon);
  fs::remove(maker_.Root() + "/KeepList0");
  fs::create_directory(maker_.Root() + "/KeepList0");
  EXPECT_THAT(Remove({.sites = {1}}).errors, SizeIs(1));
  EXPECT_THAT(maker_.Present(), SizeIs(1));
}

// Every recording is there with its index, or is gone; every file has a record and every record a
// file; no event is left that nothing shows, and none is gone that something does.
void ExpectWholeOrGone(const test::RecordingsMaker& maker, std::size_t eventsOfOthers) {
  const auto present = maker.Present();
  EXPECT_EQ(maker.Listed(), present);
  std::size_t indexes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(maker.Root() + "/recordings")) {
    indexes += entry.path().extension() == ".idx" ? 1 : 0;
    EXPECT_TRUE(entry.path().extension() != ".tmp") << entry.path();
  }
  for (const std::string& drv : present) {
    EXPECT_EQ(fs::file_size(IdxOf(drv)), 11u * 32) << drv;
  }
  EXPECT_EQ(indexes, present.size());
  EXPECT_EQ(maker.Events(), present.size() + eventsOfOthers);
}

TEST_F(RemoveRecordings, EveryOperationMayFail) {
  for (const int error : {EIO, ENOSPC}) {
    bool failed = true;
    for (std::uint64_t number = 0; failed; ++number) {
      fs::remove_all(maker_.Root() + "/recordings");
      fs::remove(maker_.Root() + "/EventList0");
      fs::create_directories(maker_.Root() + "/recordings");
      for (int i = 0; i < 4; ++i) {
        maker_.Add(1, kRemovedNoon + i * 100);
        maker_.AddEvent(1, kRemovedNoon + i * 100 + 2, kRemovedNoon + i * 100 + 4);
      }
      {
        test::FaultScope faults;
        faults.io.FailOperation(number, error);
        Remove({.before = kRemovedNoon + 250});
        failed = faults.io.Operations() > number;
        EXPECT_EQ(faults.io.OpenHandles(), 0);
      }
      EXPECT_THAT(cms::EndRemovals(maker_.Root()).errors, IsEmpty()) << number;
      ExpectWholeOrGone(maker_, 0);
      EXPECT_LE(maker_.Present().size(), 4u);
      EXPECT_GE(maker_.Present().size(), 1u);
      if (HasFailure()) {
        FAIL() << "operation " << number;
      }
    }
  }
}

TEST_F(RemoveRecordings, KilledAtAnyMomentOneRepairEndsIt) {
  std::mt19937 random(7);
  constexpr int kFiles = 400;
  int unfinished = 0;
  for (int round = 0; round < 6; ++round) {
    test::RecordingsMaker maker("/dev/shm");
    for (int i = 0; i < kFiles; ++i) {
      const std::int64_t start = kRemovedNoon + i * 100;
      const std::string drv = maker.Add(1, start);
      fs::last_write_time(drv, fs::file_time_type::clock::now() - std::chrono::minutes(1));
      maker.AddEvent(1, start + 2, start + 4);
    }
    maker.AddEvent(9, kRemovedNoon, kRemovedNoon + 5);
    const pid_t child = fork();
    if (child == 0) {
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
      execl(test::OrvantaBinary().c_str(), "orvanta", "remove", "--data", maker.Root().c_str(),
            "--site", "1", "--before", "2023-11-15T08:00:00Z", "--json", nullptr);
      _exit(1);
    }
    const auto isAllThere = [&maker] {
      try {
        return maker.Present().size() == kFiles;
      } catch (const fs::filesystem_error&) {  // a folder went while it was looked at
        return false;
      }
    };
    while (isAllThere()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 10'000));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    unfinished += WIFSIGNALED(status) ? 1 : 0;
    const auto repair = test::RunOrvanta("repair --forget-missing --json --data " + maker.Root());
    EXPECT_EQ(repair.status, 0) << repair.errors;
    ExpectWholeOrGone(maker, 1);
  }
  EXPECT_GT(unfinished, 0);
}

}  // namespace
