// What a site client records, when, and what it says about what it did not.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "cms/runtime/native_path.h"
#include "tests/live/recording_site.h"
#include "tests/support/wait.h"

namespace {

using cms::GapCause;

constexpr cms::EventMarks kRecordedDeviceEvent{true, false, false};
constexpr cms::EventMarks kRecordedAlarm{false, true, false};

using SiteRecording = test::SiteRecordingTest;

TEST_F(SiteRecording, EventsBeginWithTheirMarksAndEndAfterTheDuration) {
  client_->SetRecDuration(3);
  Seconds(1, kRecordedDeviceEvent);  // not enabled
  EXPECT_EQ(client_->IsRecording(), 0);
  client_->TurnOnRecordingState(0, cms::kRecordDeviceEvent);
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  client_->TurnOnRecordingState(7, cms::kRecordAlarm);  // there is no such channel
  Seconds(1);
  EXPECT_EQ(client_->IsRecording(), 0);
  const std::int64_t begin = site_.clock.WallSeconds();
  Seconds(1, kRecordedDeviceEvent);
  EXPECT_EQ(client_->IsMotionRecording(0), 1);
  Seconds(1, kRecordedDeviceEvent);
  Seconds(2);
  EXPECT_EQ(client_->IsMotionRecording(0), 1);
  client_->SetEventState(0, cms::kEventStateAlarm);
  Seconds(1);
  client_->SetEventState(0, 0);
  EXPECT_EQ(client_->IsMotionRecording(0), 1);  // up to the next key frame
  Seconds(2);
  EXPECT_EQ(client_->IsMotionRecording(0), 0);
  EXPECT_EQ(client_->IsRecording(0), 1);  // the alarm's
  Seconds(2);
  EXPECT_EQ(client_->IsRecording(), 0);

  const auto events = EventRows(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, 1u);
  EXPECT_EQ(events[0].start, begin);
  EXPECT_EQ(events[0].end, begin + 5);
  EXPECT_EQ(events[0].siteNumber, 12u);
  EXPECT_EQ(events[0].preAlarm, 0u);
  EXPECT_EQ(events[1].type, 3u);
  EXPECT_EQ(events[1].start, begin + 4);
  EXPECT_EQ(events[1].end, begin + 7);
  // The time behind the marks is marked as well, as long as the device's event is recorded.
  for (const auto& frame : Video(site_.Files())) {
    EXPECT_EQ(frame.eventMask, frame.seconds < begin + 6 ? 1u : 0u) << frame.seconds - begin;
  }
}

TEST_F(SiteRecording, AnEventOfASilentStreamEndsByTheClock) {
  client_->SetRecDuration(2);
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  Seconds(3, kRecordedAlarm);
  EXPECT_EQ(client_->IsRecording(0), 1);
  EXPECT_TRUE(test::WaitFor([&] {
    Silence(1);
    return client_->IsRecording() == 0;
  }));
  EXPECT_EQ(EventRows(1).size(), 1u);
}

// Two events with a pre-alarm: every frame from the first group that is needed on is there once,
// between the events too, where the seconds before the second reach back to the first.
TEST_F(SiteRecording, ThePreAlarmIsOnDiskAndTheEventSaysHowMuch) {
  client_->SetRecDuration(2);
  client_->TurnOnRecordingState(0, cms::kRecordDeviceEvent);
  ASSERT_EQ(client_->SetRecEventPreAlarm(0, 5, 1), 1);
  Seconds(11);
  client_->Give(source_);  // the event falls into a group of pictures
  const std::uint32_t mark = source_.NextSequence();
  const std::int64_t begin = site_.clock.WallSeconds();
  Seconds(1, kRecordedDeviceEvent);
  Seconds(6);
  EXPECT_EQ(client_->IsRecording(), 0);
  EXPECT_EQ(client_->WaitRecorded(30'000), 1);  // a finished file is not continued
  const std::uint32_t second = source_.NextSequence();
  Seconds(1, kRecordedDeviceEvent);
  Seconds(6);

  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 2u);
  const std::uint32_t first = files[0].frames[0].sequence;
  EXPECT_EQ(first, mark - mark % 20 - 59 + (mark % 20 == 0 ? 20 : 0));
  const std::uint32_t behind = test::CheckSeams(files, first);
  EXPECT_GT(behind, second);
  EXPECT_GE(Video({files[0]}).back().sequence, mark);
  EXPECT_GE(files[0].frames.size(), 2 * Video({files[0]}).size() - 3);  // the audio between them

  const auto events = EventRows(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].start, begin);
  EXPECT_EQ(events[0].start - events[0].preAlarm, files[0].frames[0].seconds);
  EXPECT_GE(events[0].preAlarm, 5u);
  EXPECT_LE(events[0].preAlarm, 7u);
  EXPECT_EQ(events[1].start - events[1].preAlarm, files[1].frames[0].seconds);
  const auto records = cms::ReadRecordList(L"..\\rec").rows;
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].start, files[0].frames[0].seconds);
}

TEST_F(SiteRecording, WhatIsRecordedAnywayIsNotKeptTwice) {
  ASSERT_EQ(client_->SetRecEventPreAlarm(0, 5, 1), 1);
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  Seconds(4);
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  const std::uint32_t first = source_.NextSequence();
  Seconds(3);
  Seconds(1, kRecordedAlarm);
  client_->StopRecordAll();
  test::CheckSeams(site_.Files(), first);
  const auto events = EventRows(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].preAlarm, 3u);  // since the recording began
  EXPECT_EQ(client_->GetRecordingStatus().frames, 80u);
}

TEST_F(SiteRecording, MemoryForThePreAlarmIsBounded) {
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  ASSERT_EQ(client_->SetRecEventPreAlarm(0, 60, 1, 20'000), 1);
  Seconds(30);
  Seconds(1, kRecordedAlarm);
  client_->StopRecordAll();
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_LT(std::filesystem::file_size(site_.Rec() + "/" + files[0].name), 60'000u);
  const auto events = EventRows(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_LT(events[0].preAlarm, 30u);
  EXPECT_EQ(events[0].start - events[0].preAlarm, files[0].frames[0].seconds);
}

TEST_F(SiteRecording, ASlowStreamReachesTheDiskWithinFiveSeconds) {
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  client_->Give(source_);
  const auto onDisk = [&] {
    return std::filesystem::file_size(site_.Rec() + "/Rec_Site12_20231114221320.drv") > 0 &&
           std::filesystem::file_size(site_.Rec() + "/Rec_Site12_20231114221320.idx") > 0;
  };
  Silence(4);  // the queue's own work is the fifth
  EXPECT_TRUE(test::WaitFor(onDisk));
  EXPECT_EQ(Video(site_.Files()).size(), 1u);
}

TEST_F(SiteRecording, GapsHaveTheirCause) {
  const std::int64_t begin = site_.clock.WallSeconds();
  client_->TurnOnRecordingState(0, cms::kRecordSchedule);
  client_->SetConnection(cms::ConnectionState::kWaiting, cms::ConnectionFault::kPasswordRefused);
  ASSERT_TRUE(WaitForGap(GapCause::kPasswordRefused));
  client_->SetConnection(cms::ConnectionState::kOpening);  // the next attempt: no news
  Silence(2);
  client_->SetConnection(cms::ConnectionState::kPlaying);
  ASSERT_TRUE(WaitForGap(GapCause::kNoPictures));
  ASSERT_TRUE(WaitForEnd(1));
  Seconds(5);
  const std::int64_t lost = site_.clock.WallSeconds() - 1;  // the last frame's second
  client_->SetConnection(cms::ConnectionState::kWaiting, cms::ConnectionFault::kClosedByCamera);
  ASSERT_TRUE(WaitForGap(GapCause::kCameraGone));
  client_->SetConnection(cms::ConnectionState::kPlaying);
  ASSERT_TRUE(WaitForEnd(2));
  Seconds(2);
  client_->StopRecordAll();
  ASSERT_TRUE(WaitForGap(GapCause::kStopped));
  client_.reset();  // the stop lasts

  const auto gaps = Gaps();
  ASSERT_EQ(gaps.size(), 4u);
  EXPECT_EQ(gaps[0].cause, GapCause::kPasswordRefused);
  EXPECT_GE(gaps[0].from, begin);
  EXPECT_EQ(gaps[0].to, gaps[1].from);
  EXPECT_EQ(gaps[2].from, lost);  // back to the last frame, not from when it was noticed
  EXPECT_GT(gaps[2].to, lost);
  EXPECT_EQ(gaps[3].to, 0);
  EXPECT_EQ(gaps[3].siteNumber, 12u);
  EXPECT_EQ(gaps[3].siteName, "Hof");
}

TEST_F(SiteRecording, AFullDiskIsAGapAndRecordingResumes) {
  test::FaultScope fault;
  client_->TurnOnRecordingState(0, cms::kRecordSchedule);
  Seconds(4);
  ASSERT_EQ(client_->WaitRecorded(30'000), 1);
  fault.io.LimitSpace(0);
  ASSERT_TRUE(test::WaitFor([&] {
    Seconds(1);
    return client_->GetRecordingStatus().state == cms::RecordingState::kFailed;
  }));
  ASSERT_TRUE(test::WaitFor([&] {  // it cannot be in the log yet
    site_.clock.Advance(1);
    const auto gap = client_->GetRecordingGap();
    return gap && gap->cause == GapCause::kDiskFull;
  }));
  fault.io.LimitSpace(test::FaultyFileIo::kNever);
  ASSERT_TRUE(test::WaitFor([&] {
    Seconds(1);
    const auto gaps = Gaps();
    return !gaps.empty() && gaps[0].to != 0;
  }));
  EXPECT_EQ(Gaps()[0].cause, GapCause::kDiskFull);
  EXPECT_EQ(Gaps()[0].error, ENOSPC);
  client_.reset();
  EXPECT_GE(site_.Files().size(), 2u);
  const auto video = Video(site_.Files());
  ASSERT_GT(video.size(), 40u);
  EXPECT_EQ(video[39].sequence, 40u);  // nothing that was written is lost
}

TEST_F(SiteRecording, FinishedFilesMoveInOrderOnceTheTargetIsThere) {
  const std::string target = site_.folder.Beside("nas");
  ASSERT_EQ(client_->StartMoveFileToNAS(L"..\\nas"), 1);
  EXPECT_EQ(client_->StartMoveFileToNAS(L"..\\other"), 0);
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  for (int i = 0; i < 3; ++i) {
    Seconds(2);
    client_->ChangeRecordFile();
  }
  Seconds(2);
  client_->StopRecordAll();
  ASSERT_EQ(client_->WaitRecorded(30'000), 1);
  const auto files = client_->TakeRecordedFiles();
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(site_.Files().size(), 4u);  // it is away
  std::filesystem::create_directory(target);
  ASSERT_TRUE(test::WaitFor([&] {
    site_.clock.Advance(1);
    return cms::ReadRecordList(L"..\\nas\\rec").rows.size() == 4;
  }));
  client_->StopMoveFileToNAS();
  EXPECT_EQ(client_->IsMovingFileToNAS(), 0);
  EXPECT_TRUE(site_.Files().empty());
  EXPECT_TRUE(cms::ReadRecordList(L"..\\rec").rows.empty());
  EXPECT_EQ(test::CheckSeams(test::ReadRecordings(target + "/rec")), 81u);
  EXPECT_EQ(cms::ReadFolderList(0).rows.at(0).folder, "..\\nas");
}

// What keeps the disk free takes the oldest while the target is away: the rest goes there all the
// same, also when a record or the day's empty folder was tidied away meanwhile.
TEST_F(SiteRecording, RecordingsThatWereRemovedMeanwhileHoldUpNoMove) {
  const std::string target = site_.folder.Beside("nas");
  std::filesystem::create_directory(target);
  const auto record = [&] {
    Seconds(2);
    client_->ChangeRecordFile();
  };
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  for (int i = 0; i < 3; ++i) {
    record();
  }
  client_->StopRecordAll();
  ASSERT_EQ(client_->WaitRecorded(30'000), 1);
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 3u);
  test::FaultScope faults;
  faults.io.HangAt("../nas/rec");
  ASSERT_EQ(client_->StartMoveFileToNAS(L"..\\nas"), 1);
  ASSERT_TRUE(test::WaitFor([&] {
    site_.clock.Advance(1);
    return faults.io.Hanging() > 0;
  }));
  for (const char* extension : {".drv", ".idx"}) {
    std::filesystem::remove(site_.Rec() + "/" + files[0].name.substr(0, files[0].name.size() - 4) +
                            extension);
  }
  faults.io.HangAt("");
  ASSERT_TRUE(test::WaitFor([&] {
    site_.clock.Advance(1);
    return cms::ReadRecordList(L"..\\nas\\rec").rows.size() == 2;
  }));
  client_->StopMoveFileToNAS();
  EXPECT_TRUE(site_.Files().empty());
  EXPECT_EQ(test::ReadRecordings(target + "/rec").size(), 2u);
  client_.reset();  // its threads use the faulty edge
}

// Nobody waits in between: the file that the end closes goes there too, however it ends.
TEST_F(SiteRecording, TheLastFileIsMovedToo) {
  const std::string target = site_.folder.Beside("nas");
  std::filesystem::create_directory(target);
  for (int round = 0; round < 6; ++round) {
    client_.emplace(test::ParamFor(12));
    ASSERT_EQ(client_->StartMoveFileToNAS(L"..\\nas"), 1);
    ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
    Seconds(2);
    if (round % 2 == 0) {
      client_->StopRecordAll();
      client_->StopMoveFileToNAS();
    }
    client_.reset();
    EXPECT_TRUE(site_.Files().empty());
    EXPECT_EQ(test::ReadRecordings(target + "/rec").size(), static_cast<std::size_t>(round + 1));
    EXPECT_EQ(cms::ReadRecordList(L"..\\nas\\rec").rows.size(),
              static_cast<std::size_t>(round + 1));
  }
}

// What earlier runs left in the days' folders goes first; other sites' files, one that is being
// written and what is no day's stay.
TEST_F(SiteRecording, WhatEarlierRunsLeftIsMovedByTheNext) {
  const std::string target = site_.folder.Beside("nas");
  const auto record = [&](int site, const wchar_t* folder) {
    std::filesystem::create_directory(cms::NativePath(folder));
    client_.emplace(test::ParamFor(site, 64, folder));
    EXPECT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
    Seconds(2);
  };
  record(12, L"..\\20260101");
  record(12, L"..\\20260102");
  record(1, L"..\\20260102");
  record(12, L"..\\other");
  client_.reset();
  test::RecordingClient writing(test::ParamFor(12, 64, L"..\\20260103"));
  std::filesystem::create_directory(site_.folder.Beside("20260103"));
  ASSERT_EQ(writing.StartRecord(0, cms::kRecordInstant), 1);
  writing.Give(source_);
  source_.SkipToKeyFrame();

  std::filesystem::create_directory(target);
  record(12, L"..\\20260104");
  ASSERT_EQ(client_->StartMoveFileToNAS(L"..\\nas"), 1);
  EXPECT_TRUE(test::WaitFor([&] {
    site_.clock.Advance(1);
    return cms::ReadRecordList(L"..\\nas\\20260102").rows.size() == 1;
  }));
  client_.reset();
  for (const std::string day : {"20260101", "20260102", "20260104"}) {
    const auto files = test::ReadRecordings(target + "/" + day);
    ASSERT_EQ(files.size(), 1u) << day;
    EXPECT_TRUE(files[0].name.starts_with("Rec_Site12_"));
    EXPECT_EQ(files[0].frames.size(), 40u);
  }
  EXPECT_EQ(test::ReadRecordings(site_.folder.Beside("20260102")).size(), 1u);
  EXPECT_EQ(test::ReadRecordings(site_.folder.Beside("other")).size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(target + "/20260103"));
}

TEST_F(SiteRecording, ARefusedStartSaysWhy) {
  const auto refused = [&](unsigned channel, int kind) {
    EXPECT_EQ(client_->StartRecord(channel, kind), 0);
    return client_->GetStartRecordError();
  };
  EXPECT_EQ(refused(3, cms::kRecordInstant), "channel 3: the site has no such channel");
  EXPECT_EQ(refused(0, 2), "kind 2 is no CMSRecordKind");
  client_->SetRecordParam(test::ParamFor(12, 0));
  EXPECT_EQ(refused(0, cms::kRecordAlarm), "fileSizeMiB and secondLimit are to be at least 1");
  client_->SetRecordParam({});
  EXPECT_EQ(refused(0, cms::kRecordSchedule), "no path: SetRecordParam comes first");
  client_->SetRecordParam(test::ParamFor(12, 64, L"..\\EventList0"));
  std::ofstream("../EventList0") << "no folder";
  EXPECT_EQ(refused(0, cms::kRecordInstant), "../EventList0/Rec_Site12_*: Not a directory");
  client_->SetRecordParam(test::ParamFor(12));
  EXPECT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  EXPECT_EQ(client_->GetStartRecordError(), "");
}

// Nothing waits for a disk that takes no more: who ends says so at once.
TEST_F(SiteRecording, NobodyWaitsForAFullDisk) {
  test::FaultScope fault;
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  Seconds(4);
  ASSERT_EQ(client_->WaitRecorded(30'000), 1);
  Seconds(4);
  fault.io.LimitSpace(0);
  client_->StopRecordAll();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client_->WaitRecorded(600'000), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(300));
  fault.io.LimitSpace(test::FaultyFileIo::kNever);
  EXPECT_TRUE(test::WaitFor([&] {
    site_.clock.Advance(1);
    return client_->WaitRecorded(0) == 1 || cms::ReadRecordList(L"..\\rec").rows.size() == 1;
  }));
  client_.reset();  // its disk thread uses the faulty edge
}

// A day's folder changes, and the camera's clock steps back by an hour: nothing is overwritten.
TEST_F(SiteRecording, ChangedPathsAndSteppingClocksLoseNothing) {
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
  Seconds(4);
  std::filesystem::create_directory(site_.folder.Beside("rec2"));
  EXPECT_EQ(client_->ChangeRecordPath(test::ParamFor(12, 64, L"..\\rec2").path), 1);
  Seconds(4);
  site_.clock.SetWall(site_.clock.WallSeconds() - 3600);
  client_->ChangeRecordFile();
  Seconds(4);
  site_.clock.SetWall(site_.clock.WallSeconds() + 3600 - 4);  // the hour that has been once
  client_->ChangeRecordFile();
  Seconds(4);
  client_->StopRecordAll();
  auto files = site_.Files();
  ASSERT_EQ(files.size(), 1u);
  const auto later = test::ReadRecordings(site_.folder.Beside("rec2"));
  ASSERT_EQ(later.size(), 3u);
  files.push_back(later[1]);
  files.push_back(later[0]);  // its name is an hour older
  files.push_back(later[2]);
  EXPECT_EQ(test::CheckSeams(files), 161u);
}

// The hour that a day of 25 hours has twice gives its names twice; one of 23 hours leaves some out.
TEST_F(SiteRecording, DaysOf23And25HoursOverwriteNothing) {
  const char* const before = std::getenv("TZ");
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  for (const std::int64_t begin : {1'792'888'200, 1'774'744'200}) {  // half an hour before each
    const std::uint32_t first = source_.NextSequence();
    for (const auto& entry : std::filesystem::directory_iterator(site_.Rec())) {
      std::filesystem::remove(entry.path());
    }
    site_.clock.SetWall(begin);
    ASSERT_EQ(client_->StartRecord(0, cms::kRecordInstant), 1);
    for (int i = 0; i < 6; ++i) {
      Seconds(2);
      site_.clock.SetWall(begin + 1'800 * (i + 1));
      client_->ChangeRecordFile();
    }
    Seconds(2);
    client_->StopRecordAll();
    ASSERT_EQ(client_->WaitRecorded(30'000), 1);
    auto frames = Video(site_.Files());
    std::sort(frames.begin(), frames.end(),
              [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
    ASSERT_EQ(frames.size(), 140u);
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].sequence, first + i);
    }
  }
  before != nullptr ? setenv("TZ", before, 1) : unsetenv("TZ");
  tzset();
}

}  // namespace
