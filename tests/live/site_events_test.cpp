// Event recordings of a site client: that none leaves no trace, whatever it falls into.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cms/recording/database_reader.h"
#include "tests/live/recording_site.h"

namespace {

class SiteEvents : public test::SiteRecordingTest {
 protected:
  int Failures() const { return static_cast<int>(client_->GetRecordingStatus().failures); }
};

constexpr cms::EventMarks kDeviceEvent{true, false, false};
constexpr cms::EventMarks kAlarm{false, true, false};

// Marks that flicker, most of them between two key frames and all shorter than a group of pictures:
// every marked picture is in a file, once, behind a key frame, and in the times of an event.
TEST_F(SiteEvents, NoMarkedPictureIsLostWhereverItFalls) {
  std::mt19937 random(3);
  client_->TurnOnRecordingState(0, cms::kRecordDeviceEvent);
  std::set<std::uint32_t> marked;
  std::set<std::int64_t> markedSeconds;
  for (unsigned second = 0; second < 180; ++second) {
    client_->SetRecDuration(second / 60);
    for (int i = 0; i < kFps; ++i) {
      const bool mark = second > 1 && random() % 40 == 0;
      if (mark) {
        marked.insert(source_.NextSequence());
        markedSeconds.insert(site_.clock.WallSeconds());
      }
      client_->Give(source_, mark ? kDeviceEvent : cms::EventMarks{});
      client_->GiveAudio();
      site_.clock.AdvanceMilliseconds(1000 / kFps);
    }
    site_.clock.SetWall(site_.clock.WallSeconds() + 1);
  }
  client_->StopRecordAll();
  ASSERT_GT(marked.size(), 20u);

  const auto files = site_.Files();
  std::set<std::uint32_t> recorded;
  std::set<std::int64_t> firstSeconds;
  for (const auto& file : files) {
    ASSERT_FALSE(file.frames.empty()) << file.name;
    EXPECT_EQ(file.frames[0].type, 1u) << file.name;
    firstSeconds.insert(file.frames[0].seconds);
    std::uint32_t last = 0;
    for (const auto& frame : Video({file})) {
      EXPECT_TRUE(recorded.insert(frame.sequence).second) << frame.sequence;
      EXPECT_TRUE(frame.type == 1 || last + 1 == frame.sequence) << frame.sequence;
      last = frame.sequence;
    }
  }
  EXPECT_LT(recorded.size(), 1'800u);
  for (const std::uint32_t sequence : marked) {
    EXPECT_TRUE(recorded.contains(sequence)) << sequence;
  }
  const auto events = EventRows(1);
  for (const std::int64_t second : markedSeconds) {
    EXPECT_TRUE(std::any_of(events.begin(), events.end(), [&](const auto& event) {
      return event.start <= second && second <= event.end;
    })) << second;
  }
  std::set<std::int64_t> begins;
  for (const auto& event : events) {
    begins.insert(event.start - event.preAlarm);
  }
  for (const std::int64_t second : firstSeconds) {
    EXPECT_TRUE(begins.contains(second)) << second;
  }
  client_.reset();
  const auto gaps = Gaps();
  for (const auto& gap : gaps) {  // behind the last event nothing is missing
    EXPECT_NE(gap.cause, cms::GapCause::kStopped);
  }
}

// The stream has no key frame yet: the event waits for one instead of ending without a picture.
// What the application knows at a moment holds for the pictures of that moment, when they come too.
TEST_F(SiteEvents, PicturesThatWereHeldUpAreRecordedToTheEventsEnd) {
  client_->TurnOnRecordingState(0, cms::kRecordDeviceEvent);
  client_->SetRecDuration(1);
  client_->held = 6;
  Seconds(8);
  const std::int64_t begin = site_.clock.WallSeconds();
  client_->SetEventState(0, cms::kEventStateDeviceEvent);
  Seconds(2);
  const std::int64_t end = site_.clock.WallSeconds();
  client_->SetEventState(0, 0);
  Seconds(15);
  client_->StopRecordAll();
  const auto rows = EventRows(1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_LE(rows[0].start, begin);
  EXPECT_GE(rows[0].end, end);
  EXPECT_LE(rows[0].end, end + 4);  // the next key frame behind the duration
}

TEST_F(SiteEvents, AnEventInFrontOfTheFirstKeyFrameIsRecordedFromThere) {
  source_.SkipToKeyFrame();
  source_.Next();
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  const std::int64_t begin = site_.clock.WallSeconds();
  client_->Give(source_, kAlarm);
  Seconds(1);
  EXPECT_EQ(client_->IsRecording(0), 1);
  Seconds(4);
  EXPECT_EQ(client_->IsRecording(0), 0);
  const auto video = Video(site_.Files());
  ASSERT_FALSE(video.empty());
  EXPECT_EQ(video[0].type, 1u);
  const auto events = EventRows(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].start, begin);
  EXPECT_GE(events[0].end, video[0].seconds);
}

// A group of pictures that memory does not hold, and no key frame for long: the event ends then.
TEST_F(SiteEvents, AnEventWithoutAPictureToComeEnds) {
  ASSERT_EQ(client_->SetRecEventPreAlarm(0, 1, 1, 100), 1);  // holds nothing
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  Seconds(1);
  client_->Give(source_, kAlarm);
  EXPECT_EQ(client_->IsRecording(0), 1);
  EXPECT_TRUE(test::WaitFor([&] {
    Silence(10);
    return client_->IsRecording(0) == 0;
  }));
  EXPECT_EQ(EventRows(1).size(), 1u);
}

// A folder that is away: asked for now and then, not for each frame; the gap says why; and the
// event begins when the folder is there, if it still lasts.
TEST_F(SiteEvents, AnEventThatCannotBeginIsAGapAndTriedAgain) {
  test::FaultScope fault;
  fault.io.AwayFrom("../rec/");
  client_->SetRecDuration(3);
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  Seconds(5);
  EXPECT_FALSE(client_->GetRecordingGap());
  const std::int64_t begin = site_.clock.WallSeconds();
  const int failures = Failures();
  Seconds(20, kAlarm);
  EXPECT_LE(Failures() - failures, 21);
  ASSERT_TRUE(test::WaitFor([&] {
    Seconds(1, kAlarm);
    const auto gap = client_->GetRecordingGap();
    return gap && gap->cause == cms::GapCause::kWriteFailed && gap->error == EHOSTUNREACH;
  }));
  EXPECT_GT(Gaps().at(0).from, begin - 8);  // not before the clock looked last
  EXPECT_EQ(client_->IsRecording(0), 0);

  // Marks end, and with them what was wanted.
  Seconds(5);
  EXPECT_TRUE(test::WaitFor([&] {
    Silence(1);
    return !client_->GetRecordingGap();
  }));
  fault.io.AwayFrom("");
  Seconds(60);
  EXPECT_EQ(client_->IsRecording(0), 0);
  EXPECT_TRUE(test::WaitFor([&] {
    Seconds(1, kAlarm);
    return client_->IsRecording(0) == 1;
  }));
  client_.reset();  // its disk thread uses the faulty edge
}

TEST_F(SiteEvents, AnEventBeginsWhenItsFolderComesBackWhileItLasts) {
  test::FaultScope fault;
  fault.io.AwayFrom("../rec/");
  client_->TurnOnRecordingState(0, cms::kRecordAlarm);
  EXPECT_TRUE(test::WaitFor([&] {
    Seconds(1, kAlarm);
    return client_->IsRecording(0) == 0;
  }));
  fault.io.AwayFrom("");
  EXPECT_TRUE(test::WaitFor([&] {
    Seconds(1, kAlarm);
    return client_->IsRecording(0) == 1;
  }));
  Seconds(30, kAlarm);
  client_->StopRecordAll();
  EXPECT_GT(Video(site_.Files()).size(), 200u);
  EXPECT_EQ(EventRows(1).size(), 1u);
  client_.reset();  // its disk thread uses the faulty edge
}

// By hand, and on two channels of one site, of which the second begins inside the first's file:
// each event has its own seconds, and its record says how many.
TEST_F(SiteEvents, EachChannelHasItsOwnPreAlarmAlsoWhenStartedByHand) {
  client_.emplace(test::ParamFor(12), 2);
  test::FrameSource second(Clip(), 1);
  ASSERT_EQ(client_->SetRecEventPreAlarm(0, 2, 1), 1);
  ASSERT_EQ(client_->SetRecEventPreAlarm(1, 5, 1), 1);
  const auto both = [&](int seconds) {
    for (int i = 0; i < seconds; ++i) {
      for (int frame = 0; frame < kFps; ++frame) {
        client_->Give(source_);
        client_->Give(second, {}, 1);
        site_.clock.AdvanceMilliseconds(1000 / kFps);
      }
      site_.clock.SetWall(site_.clock.WallSeconds() + 1);
    }
  };
  both(11);
  const std::int64_t first = site_.clock.WallSeconds();
  ASSERT_EQ(client_->StartRecord(0, cms::kRecordAlarm), 1);
  both(3);
  const std::int64_t begin = site_.clock.WallSeconds();
  ASSERT_EQ(client_->StartRecord(1, cms::kRecordAlarm), 1);
  EXPECT_EQ(client_->StartRecord(1, cms::kRecordAlarm), 1);  // runs
  both(3);
  client_->StopRecord(0, cms::kRecordAlarm);
  both(20);  // begun by hand: no mark keeps it, and it goes on
  client_->StopRecord(1, cms::kRecordAlarm);
  EXPECT_EQ(client_->IsRecording(), 0);

  std::vector<std::set<std::uint32_t>> sequences(2);
  std::vector<std::int64_t> since(2);
  for (const auto& file : site_.Files()) {
    const auto video = Video({file});
    for (std::size_t i = 0; i < video.size(); ++i) {
      const auto& frame = video[i];
      const std::size_t channel = file.index[i].channel;
      ASSERT_LT(channel, 2u);
      EXPECT_TRUE(sequences[channel].insert(frame.sequence).second);
      since[channel] = since[channel] == 0 ? frame.seconds : since[channel];
    }
  }
  for (const auto& each : sequences) {  // whole, without a hole
    ASSERT_FALSE(each.empty());
    EXPECT_EQ(*each.rbegin() - *each.begin() + 1, each.size());
  }
  const auto events = EventRows(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].channel, 0u);
  EXPECT_EQ(events[0].start, first);
  EXPECT_GE(events[0].preAlarm, 2u);
  EXPECT_LE(events[0].preAlarm, 4u);
  EXPECT_EQ(events[0].start - events[0].preAlarm, since[0]);
  EXPECT_EQ(events[1].start, begin);
  EXPECT_GE(events[1].preAlarm, 5u);
  EXPECT_EQ(events[1].start - events[1].preAlarm, since[1]);
}

// Marks, switches and stops from three threads: what is off when the switch returns stays off.
TEST_F(SiteEvents, WhatWasTurnedOffDoesNotBeginAgain) {
  std::atomic<bool> done{false};
  std::thread frames([&] {
    while (!done) {
      client_->Give(source_, kAlarm);
      site_.clock.AdvanceMilliseconds(1000);
    }
  });
  std::thread questions([&] {
    while (!done) {
      client_->GetRecordingStatus();
      client_->GetRecordingGap();
      client_->IsRecording(0);
    }
  });
  int left = 0;
  for (int i = 0; i < 100; ++i) {
    client_->TurnOnRecordingState(0, cms::kRecordAlarm);
    client_->TurnOnRecordingState(0, cms::kRecordSchedule);
    std::this_thread::yield();
    client_->TurnOffRecordingState(0, cms::kRecordSchedule);
    client_->TurnOffRecordingState(0, cms::kRecordAlarm);
    left += client_->IsRecording(0);
  }
  EXPECT_EQ(left, 0);
  done = true;
  frames.join();
  questions.join();
  Seconds(2, kAlarm);
  EXPECT_EQ(client_->IsRecording(), 0);
  EXPECT_EQ(client_->WaitRecorded(30'000), 1);
}

}  // namespace
