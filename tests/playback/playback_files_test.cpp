// Recordings as they are found: damaged, without an index, still growing, of several channels.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "cms/recording/keep/remove_recordings.h"
#include "tests/playback/clip_recording.h"

namespace {

using test::ClipRecording;
using test::kStart;
using test::Player;

// The pictures from the one shown on, one step after the other, up to the end.
std::vector<int> StepThrough(Player& player, bool forward = true) {
  std::vector<int> numbers{player.Settled()};
  do {
    forward ? player.control.PlaybackStepForward() : player.control.PlaybackStepBackward();
    numbers.push_back(player.Settled());
  } while (player.control.IsAllEndOfFile() == 0 && numbers.size() < 1000);
  return numbers;
}

std::vector<int> Range(int first, int behind) {
  std::vector<int> numbers;
  for (; first < behind; ++first) {
    numbers.push_back(first);
  }
  return numbers;
}

TEST(PlaybackFiles, IndexesThatCannotBeUsedAreMadeInMemory) {
  ClipRecording recording;
  recording.count = 60;
  recording.Make();
  ClipRecording foreign;
  foreign.start = kStart + 500'000;
  foreign.Make();
  ClipRecording keysOnly;
  keysOnly.count = 60;
  keysOnly.Make(true);
  const struct {
    const char* name;
    std::string idx;
    std::uint64_t rebuilt;
  } cases[] = {
      {"missing", "", 1},
      {"of another recording", foreign.idx, 1},
      {"short, and torn", recording.idx.substr(0, 20 * 32 + 7), 0},
      {"ahead of the data",
       recording.idx +
           test::MakeIdxRecord(0, static_cast<std::uint32_t>(recording.drv.bytes.size() + 500),
                               static_cast<std::uint64_t>(kStart) + 2400, 2),
       0},
      {"key frames only", keysOnly.idx, 0},
      {"numbered by a repair", recording.drv.Idx(), 0},
      {"backward", recording.idx.substr(32 * 30, 32 * 30) + recording.idx.substr(0, 32 * 30), 1},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    Player player;
    ClipRecording::Put(player.Path("a.drv"), recording.drv.bytes);
    if (!each.idx.empty()) {
      ClipRecording::Put(player.Path("a.idx"), each.idx);
    }
    player.AddSite({"a.drv"});
    ASSERT_TRUE(player.Start()) << player.control.GetLastErrorText();
    EXPECT_EQ(StepThrough(player), Range(0, 60));
    cms::stPlaybackChannelStatus status;
    player.control.GetChannelStatus(0, 0, &status);
    EXPECT_EQ(status.rebuiltIndexes, each.rebuilt);
    // Spread over their seconds, the pictures are where they were recorded, as near as one knows.
    player.control.SetPlaybackTargetTime(kStart + 1500);
    EXPECT_NEAR(player.Settled(), 37, 1);
  }
}

// Bytes in the middle of a group are lost: what the codec makes of the rest of that group is not
// told, but everything else is shown, both ways, and what was passed over is counted.
TEST(PlaybackFiles, DamageIsPassedOver) {
  ClipRecording recording;
  recording.count = 60;
  recording.Make();
  const auto& frames = recording.drv.frames;
  for (const bool withIndex : {true, false}) {
    Player player;
    std::string bytes = recording.drv.bytes;
    // The key frame 20 altogether, and header and half of frame 43.
    bytes.replace(frames[20].offset, frames[20].length, frames[20].length, '@');
    bytes.replace(frames[43].offset, frames[43].length / 2, frames[43].length / 2, 'x');
    ClipRecording::Put(player.Path("a.drv"), bytes);
    if (withIndex) {
      ClipRecording::Put(player.Path("a.idx"), recording.idx);
    }
    player.AddSite({"a.drv"});
    ASSERT_TRUE(player.Start());
    std::vector<int> numbers = StepThrough(player);
    for (const int number : Range(0, 60)) {
      const bool damaged = (number >= 20 && number < 30) || number == 43;
      // Without an index nobody knows that a key frame is missing there.
      const bool doubtful =
          (number > 43 && number < 50) || (!withIndex && number > 20 && number < 30);
      if (!doubtful) {
        EXPECT_EQ(std::count(numbers.begin(), numbers.end(), number), damaged ? 0 : 1) << number;
      }
    }
    numbers = StepThrough(player, false);
    EXPECT_EQ(numbers.back(), 0);
    EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 19), 1);
    EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 59), 1);
    player.control.SetPlaybackTargetTime(kStart + 35 * 40);
    EXPECT_NEAR(player.Settled(), 35, withIndex ? 0 : 1);
    cms::stPlaybackChannelStatus status;
    player.control.GetChannelStatus(0, 0, &status);
    EXPECT_GT(status.skippedBytes, 0u);
  }
}

TEST(PlaybackFiles, AGrowingRecordingIsFollowedIntoItsNextFile) {
  Player player;
  ClipRecording recording;
  recording.count = 100;
  recording.Make();
  const std::string name = "Rec_Site4_20231114221320";
  const auto write = [&](int frames, std::uint64_t torn) {
    const auto& last = recording.drv.frames[static_cast<std::size_t>(frames - 1)];
    ClipRecording::Put(player.Path(name + ".idx"),
                       recording.idx.substr(0, static_cast<std::size_t>(frames) * 32));
    ClipRecording::Put(player.Path(name + ".drv"),
                       recording.drv.bytes.substr(0, last.offset + last.length + torn));
  };
  write(25, 33);
  player.AddSite({name + ".drv"});
  player.config.sites[0].followNewFiles = true;
  ASSERT_TRUE(player.Start());
  player.control.PlaybackResume();
  player.Settled();
  for (int number = 0; number < 25; ++number) {
    ASSERT_TRUE(player.Shows(number)) << player.Number();
    player.clock.AdvanceMilliseconds(40);
  }
  EXPECT_TRUE(test::WaitFor([&] { return player.control.IsAllEndOfFile() == 1; }));
  write(100, 0);
  ClipRecording next;
  next.first = 100;
  next.start = kStart + 4000;
  next.count = 20;
  next.Make().Write(player.Path("Rec_Site4_20231114221324.drv"));
  // The reader looks every half second of the clock.
  ASSERT_TRUE(test::WaitFor([&] {
    player.clock.AdvanceMilliseconds(20);
    return player.Number() > 24;
  }));
  player.control.PlaybackPause();
  player.control.SetPlaybackTargetTime(kStart + 90 * 40);
  ASSERT_EQ(player.Settled(), 90);
  const std::vector<int> numbers = StepThrough(player);
  EXPECT_EQ(std::vector<int>(numbers.begin(), numbers.begin() + 10), Range(90, 100));
  player.control.PlaybackResume();
  EXPECT_TRUE(test::WaitFor([&] {
    player.clock.AdvanceMilliseconds(20);
    return player.Number() == 119;
  })) << player.Number();
}

// The one that plays goes on to its end, the one behind it is passed over.
TEST(PlaybackFiles, WhatIsRemovedWhileItPlaysEndsNoPlayback) {
  Player player;
  std::filesystem::create_directories(player.Path("recordings/day"));
  std::vector<std::string> names;
  for (const int first : {0, 60, 80}) {
    ClipRecording part;
    part.first = first;
    part.count = first == 0 ? 60 : 20;
    part.start = kStart + first * 40;
    names.push_back("recordings/day/Rec_Site1_" + std::to_string(first) + ".drv");
    part.Make().Write(player.Path(names.back()));
  }
  player.AddSite(names);
  ASSERT_TRUE(player.Start());
  player.control.PlaybackResume();
  player.Settled();
  ASSERT_TRUE(player.Plays(0, 20));
  cms::RemoveOptions options;
  options.root = player.folder.Path();
  options.files = {player.Path(names[0]), player.Path(names[1])};
  EXPECT_EQ(cms::RemoveRecordings(options).removed.size(), 2u);
  ASSERT_TRUE(player.Plays(20, 59));
  player.clock.AdvanceMilliseconds(21 * 40);
  for (int number = 80; number < 100; ++number) {
    ASSERT_TRUE(player.Shows(number)) << number << " is " << player.Number();
    player.clock.AdvanceMilliseconds(40);
  }
  EXPECT_TRUE(test::WaitFor([&] { return player.control.IsAllEndOfFile() == 1; }));
}

TEST(PlaybackFiles, ChannelsOfOneFileAreShownAlone) {
  Player player;
  ClipRecording channels[2];
  std::string drv;
  std::string idx;
  for (unsigned i = 0; i < 2; ++i) {
    channels[i].channel = i;
    channels[i].first = static_cast<int>(i) * 100;
    channels[i].count = 40;
    channels[i].Make();
  }
  for (std::size_t frame = 0; frame < 40; ++frame) {
    for (unsigned i = 0; i < 2; ++i) {
      const auto& each = channels[i].drv.frames[frame];
      idx +=
          test::MakeIdxRecord(i, static_cast<std::uint32_t>(drv.size()),
                              static_cast<std::uint64_t>(kStart) + frame * 40, each.spec.frameType);
      drv += channels[i].drv.bytes.substr(each.offset, each.length);
    }
  }
  for (const bool withIndex : {true, false}) {
    SCOPED_TRACE(withIndex);
    Player each;
    ClipRecording::Put(each.Path("a.drv"), drv);
    if (withIndex) {
      ClipRecording::Put(each.Path("a.idx"), idx);
    }
    each.AddSite({"a.drv"});
    each.config.sites[0].channelCount = withIndex ? 0 : 2;
    ASSERT_TRUE(each.Start());
    auto& control = each.control;
    EXPECT_EQ(control.GetTotalChannel(0), 2);
    control.SetPlaybackTargetTime(kStart + 1000);
    EXPECT_EQ(each.Settled(), 25);
    EXPECT_EQ(each.Number(0, 1), 125);
    control.SetSingleChannel(0, 1, 1);
    EXPECT_EQ(each.Settled(), -2);
    EXPECT_EQ(control.GetChFrameState(0, 0), cms::PLAYBACK_CHANNEL_OFF);
    EXPECT_EQ(each.Number(0, 1), 125);
    control.PlaybackStepBackward();  // the only channel there is
    EXPECT_EQ(each.Settled(0, 1), 124);
    control.SetSingleChannel(0, 1, 0);
    EXPECT_EQ(each.Settled(), 24);
    control.S_ON_DDCH_ONE(0, 1, 0);
    each.Settled();
    EXPECT_EQ(each.Number(0, 1), -2);
    control.S_ON_DDCH_ONE(0, 1, 1);
    control.setCurrentDisplayChannel(1);
    control.setCurrentSplitMode(1);
    EXPECT_EQ(each.Settled(0, 1), 124);
    EXPECT_EQ(each.Number(0, 0), -2);
    control.SetQuickSearch(0, 1, 1);
    EXPECT_EQ(control.IsQuickSearch(0), 1);
    control.SetPlaybackTargetTime(kStart + 1500);
    EXPECT_EQ(each.Settled(0, 1), 130);
    control.SetQuickSearch(0, 1, 0);
    EXPECT_EQ(each.Settled(0, 1), 137);
  }
}

TEST(PlaybackFiles, BareVideoIsPlayedAtItsRate) {
  for (const auto codec :
       {test::ClipCodec::kH264, test::ClipCodec::kH265, test::ClipCodec::kMjpeg}) {
    Player player;
    test::ClipSpec spec;
    spec.codec = codec;
    spec.width = test::kClipWidth;
    spec.height = 96;
    std::string bytes;
    for (const auto& frame : test::EncodeClip(spec)) {
      bytes.append(frame.data.begin(), frame.data.end());
    }
    ClipRecording::Put(player.Path("a.raw"), bytes);
    player.AddSite({"a.raw"});
    player.config.sites[0].source = cms::PLAYBACK_SOURCE_RAW;
    player.config.sites[0].rawFrameRate = 10;
    player.config.sites[0].rawStartTime = kStart;
    ASSERT_TRUE(player.Start()) << player.control.GetLastErrorText();
    EXPECT_EQ(player.control.GetTotalPlaybackTime(), 2900);
    EXPECT_EQ(StepThrough(player), Range(0, 30));
    player.control.SetPlaybackTargetTime(kStart + 1750);
    EXPECT_EQ(player.Settled(), 17);
    EXPECT_EQ(player.control.IsMJPEG(0, 0), codec == test::ClipCodec::kMjpeg ? 1 : 0);
    EXPECT_EQ(player.control.IsH265(0, 0), codec == test::ClipCodec::kH265 ? 1 : 0);
    EXPECT_EQ(player.control.IsH264(0, 0), codec == test::ClipCodec::kH264 ? 1 : 0);
  }
}

TEST(PlaybackFiles, WhatCannotBePlayedIsNamed) {
  Player player;
  ClipRecording::Put(player.Path("rubbish.drv"), std::string(5000, '@'));
  player.AddSite({"rubbish.drv"});
  EXPECT_FALSE(player.Start());
  EXPECT_THAT(player.control.GetLastErrorText(),
              testing::AllOf(testing::HasSubstr("rubbish.drv"), testing::HasSubstr("no picture")));
  std::int64_t start = 0;
  std::int64_t end = 0;
  EXPECT_EQ(player.control.GetStartAndEndTimeOfDRVFile(&start, &end, L"nowhere.drv"), 0);
  ClipRecording recording;
  recording.Make().Write(player.Path("a.drv"));
  const std::wstring path = cms::SystemPath(player.Path("a.drv"));
  EXPECT_EQ(player.control.GetStartAndEndTimeOfDRVFile(&start, &end, path.c_str()), 1);
  EXPECT_EQ(start, kStart);
  EXPECT_EQ(end, recording.TimeOf(99));
}

// A recorder counts a second's milliseconds from its first frame: a recording that began in the
// middle of one has no pause behind that second for it.
TEST(PlaybackFiles, ASecondThatWasBegunLateEndsInTime) {
  ClipRecording recording;
  recording.start = kStart + 720;  // 7 pictures of the first second
  recording.count = 50;
  recording.Make();
  for (const bool withIndex : {true, false}) {
    SCOPED_TRACE(withIndex);
    Player player;
    ClipRecording::Put(player.Path("a.drv"), recording.drv.bytes);
    std::string idx = recording.idx;
    for (std::size_t i = 0; i < 7; ++i) {
      idx.replace(i * 32 + 16, 8,
                  test::LittleEndian(static_cast<std::uint64_t>(kStart) + i * 40, 8));
    }
    if (withIndex) {
      ClipRecording::Put(player.Path("a.idx"), idx);
    }
    player.AddSite({"a.drv"});
    ASSERT_TRUE(player.Start());
    for (const int number : Range(0, 50)) {
      EXPECT_EQ(player.Settled(), number);
      EXPECT_EQ(player.control.CurTimeGet(0, 0), recording.TimeOf(number));
      player.control.PlaybackStepForward();
    }
  }
}

// A clock that was set back while recording: time goes on, and every picture is played.
TEST(PlaybackFiles, TimesNeverGoBack) {
  ClipRecording before;
  before.count = 30;
  before.Make();
  ClipRecording after;
  after.first = 30;
  after.count = 30;
  after.start = kStart - 3'600'000;
  after.Make();
  Player player;
  ClipRecording::Put(player.Path("a.drv"), before.drv.bytes + after.drv.bytes);
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  EXPECT_EQ(StepThrough(player), Range(0, 60));
  EXPECT_LT(player.control.GetTotalPlaybackTime(), 4000);
}

}  // namespace
