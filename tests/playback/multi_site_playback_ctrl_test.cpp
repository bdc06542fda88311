#include "cms/playback/multi_site_playback_ctrl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cms/live/media/fisheye/fisheye_dewarper.h"
#include "tests/playback/clip_recording.h"

namespace {

using test::ClipRecording;
using test::kStart;
using test::Player;
using testing::ElementsAre;

// Every picture once, in order, each as the clock passes its time.
TEST(Playback, ShowsEveryPictureForwardAndBackwardInTurn) {
  Player player;
  ClipRecording().Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  EXPECT_EQ(player.Number(), 0);
  player.control.PlaybackResume();
  player.Settled();  // the clock goes from now on
  ASSERT_TRUE(player.Plays(0, 45));
  ASSERT_EQ(player.control.PlaybackSetSlowDown(), 1);  // 1 becomes -1
  EXPECT_EQ(player.control.GetPlaySpeed(), -1);
  ASSERT_EQ(player.Settled(), 45);
  ASSERT_TRUE(player.Plays(45, 0));
  cms::stPlaybackChannelStatus status;
  ASSERT_EQ(player.control.GetChannelStatus(0, 0, &status), 1);
  EXPECT_EQ(status.shown, 46u + 45u);
  EXPECT_EQ(status.lost, 0u);
  EXPECT_LE(player.control.GetMaximumSkew(), 41);
}

TEST(Playback, StepsOnePictureEachWay) {
  Player player;
  ClipRecording().Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  int number = 0;
  EXPECT_EQ(player.Settled(), 0);
  for (const bool forward : {true, true, true, false, true, false, false, true, true}) {
    forward ? player.control.PlaybackStepForward() : player.control.PlaybackStepBackward();
    number += forward ? 1 : -1;
    ASSERT_EQ(player.Settled(), number);
  }
  ASSERT_EQ(player.control.SetPlaybackTargetTime(kStart + 31 * 40), 1);
  ASSERT_EQ(player.Settled(), 31);
  for (number = 30; number >= 8; --number) {  // over two key frames
    player.control.PlaybackStepBackward();
    ASSERT_EQ(player.Settled(), number);
  }
  // Steps that come faster than pictures are all taken.
  for (int i = 0; i < 12; ++i) {
    player.control.PlaybackStepForward();
  }
  EXPECT_EQ(player.Settled(), 20);
  // At both ends a step leads nowhere.
  player.control.SetPlaybackTargetTime(0);
  EXPECT_EQ(player.Settled(), 0);
  player.control.PlaybackStepBackward();
  EXPECT_EQ(player.Settled(), 0);
  EXPECT_EQ(player.control.IsAllEndOfFile(), 1);
  player.control.SetPlaybackTargetTime(kStart + 3'600'000);
  EXPECT_EQ(player.Settled(), 99);
  player.control.PlaybackStepForward();
  EXPECT_EQ(player.Settled(), 99);
  EXPECT_EQ(player.control.IsAllEndOfFile(), 1);
}

// What each operation leaves behind, from the states that a client can see.
TEST(Playback, TransportStates) {
  Player player;
  CCMSMultiSitePlaybackCtrl& control = player.control;
  for (const auto operation :
       {&CCMSMultiSitePlaybackCtrl::PlaybackPause, &CCMSMultiSitePlaybackCtrl::PlaybackResume,
        &CCMSMultiSitePlaybackCtrl::PlaybackStepForward,
        &CCMSMultiSitePlaybackCtrl::PlaybackStepBackward,
        &CCMSMultiSitePlaybackCtrl::PlaybackSetSpeedUp,
        &CCMSMultiSitePlaybackCtrl::PlaybackSetSlowDown}) {
    EXPECT_EQ((control.*operation)(), 0);
  }
  EXPECT_EQ(control.SetPlaybackTargetTime(5), 0);
  EXPECT_EQ(control.PlaybackSetSlowMode(1), 0);
  EXPECT_EQ(control.GetPlaySpeed(), 0);
  EXPECT_EQ(control.GetCurPlaybackTargetTime(), cms::kPlaybackNoTargetTime);
  EXPECT_EQ(control.StartPlayback(), 0);  // nothing configured

  ClipRecording().Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  player.config.startPaused = false;
  player.config.startTime = kStart + 2000;
  ASSERT_TRUE(player.Start());
  EXPECT_EQ(control.SetConfig(player.config), 0);
  EXPECT_EQ(control.StartPlayback(), 0);
  EXPECT_EQ(control.GetPlaySpeed(), 1);

  std::vector<int> speeds;
  const auto press = [&](int (CCMSMultiSitePlaybackCtrl::*button)(), int times) {
    speeds.clear();
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ((control.*button)(), 1);
      speeds.push_back(control.GetPlaySpeed());
    }
  };
  press(&CCMSMultiSitePlaybackCtrl::PlaybackSetSpeedUp, 6);
  EXPECT_THAT(speeds, ElementsAre(2, 3, 4, 5, 6, 6));
  press(&CCMSMultiSitePlaybackCtrl::PlaybackSetSlowDown, 12);
  EXPECT_THAT(speeds, ElementsAre(5, 4, 3, 2, 1, -1, -2, -3, -4, -5, -6, -6));
  press(&CCMSMultiSitePlaybackCtrl::PlaybackSetSpeedUp, 6);
  EXPECT_THAT(speeds, ElementsAre(-5, -4, -3, -2, -1, 1));

  EXPECT_EQ(control.PlaybackStepBackward(), 1);
  EXPECT_EQ(control.GetPlaySpeed(), 0);
  EXPECT_EQ(control.IsPlaybackStep(), 1);
  EXPECT_EQ(control.GetCurPlaybackTargetTime(), 0);
  player.Settled();
  EXPECT_EQ(control.GetCurPlaybackTargetTime(), 0);
  EXPECT_EQ(control.PlaybackStepForward(), 1);
  EXPECT_EQ(control.GetCurPlaybackTargetTime(), cms::kPlaybackNoTargetTime);
  EXPECT_EQ(control.IsPlaybackStep(), 1);
  EXPECT_EQ(control.PlaybackStepBackward(), 1);
  EXPECT_EQ(control.PlaybackPause(), 1);
  EXPECT_EQ(control.IsPlaybackStep(), 0);
  EXPECT_EQ(control.IsPlaybackPause(), 1);
  EXPECT_EQ(control.GetCurPlaybackTargetTime(), cms::kPlaybackNoTargetTime);
  press(&CCMSMultiSitePlaybackCtrl::PlaybackSetSlowDown, 1);
  EXPECT_THAT(speeds, ElementsAre(-1));
  EXPECT_EQ(control.PlaybackResume(), 1);
  EXPECT_EQ(control.GetPlaySpeed(), 1);
  EXPECT_EQ(control.PlaybackSetSlowMode(1), 1);
  EXPECT_EQ(control.IsPlaybackInSlowMode(), 1);
  EXPECT_EQ(control.IsPlaybackPlaying(), 1);
  control.StopPlayback();
  EXPECT_EQ(control.HasStartPlay(), 0);
  EXPECT_EQ(control.PlaybackPause(), 0);
}

TEST(Playback, SpeedsAreThoseOfTheClock) {
  Player player;
  ClipRecording recording;
  recording.count = 240;
  recording.Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  player.control.PlaybackResume();
  player.Settled();  // the clock goes from now on
  double rate = 1;
  for (int speed = 1; speed <= 6; ++speed) {
    player.control.SetPlaybackTargetTime(kStart);
    ASSERT_EQ(player.Settled(), 0);
    for (const bool slow : {false, true}) {
      player.control.PlaybackSetSlowMode(slow ? 1 : 0);
      const std::int64_t before = player.control.GetPlaybackTime();
      player.clock.AdvanceMilliseconds(100);
      EXPECT_EQ(player.control.GetPlaybackTime() - before, 100 * rate * (slow ? 0.5 : 1)) << speed;
      // At high speed, the key frame.
      const int at = static_cast<int>((player.control.GetPlaybackTime() - kStart) / 40);
      const bool keysOnly = rate * (slow ? 0.5 : 1) >= 8;
      EXPECT_TRUE(player.Shows(keysOnly ? at / 10 * 10 : at)) << speed << ": " << player.Number();
    }
    player.control.PlaybackSetSlowMode(0);
    player.control.PlaybackSetSpeedUp();
    player.Settled();
    rate *= 2;
  }
  // The same backward, from the end.
  player.control.SetPlaybackTargetTime(kStart + 9590);
  player.Settled();
  while (player.control.GetPlaySpeed() > -4) {
    player.control.PlaybackSetSlowDown();
  }
  player.Settled();
  player.clock.AdvanceMilliseconds(500);  // 4 seconds
  EXPECT_TRUE(player.Shows((9590 - 4000) / 40 / 10 * 10)) << player.Number();
}

// Two sites whose pictures lie between each other's, one of which begins later and ends earlier.
TEST(Playback, SitesStayInStepOverDifferentBeginningsAndEnds) {
  Player player;
  ClipRecording a;
  a.Make().Write(player.Path("a.drv"));
  ClipRecording b;
  b.first = 50;
  b.count = 30;
  b.start = kStart + 1017;
  b.Make().Write(player.Path("b.drv"));
  player.AddSite({"a.drv"});
  player.AddSite({"b.drv"});
  ASSERT_TRUE(player.Start());
  EXPECT_EQ(player.control.GetTotalPlaySite(), 2);
  EXPECT_EQ(player.control.GetSiteNum(1), 2);
  EXPECT_EQ(player.control.GetPlayingSiteIdx(2), 1);
  EXPECT_EQ(player.control.GetPlaybackDataStartTime(), kStart);
  EXPECT_EQ(player.control.GetTotalPlaybackTime(), 99 * 40);
  EXPECT_EQ(player.Number(1), -2);
  EXPECT_EQ(player.control.GetChFrameState(1, 0), cms::PLAYBACK_CHANNEL_GAP);
  const auto expectAt = [&](std::int64_t time) {
    const int second = static_cast<int>((time - b.start + 40'000) / 40) - 1000;
    ASSERT_TRUE(player.Shows(static_cast<int>((time - kStart) / 40), 0)) << time - kStart;
    ASSERT_TRUE(player.Shows(second < 0 || second >= 30 ? -2 : 50 + second, 1)) << time - kStart;
  };
  player.control.PlaybackResume();
  player.Settled();  // the clock goes from now on
  for (std::int64_t time = kStart; time < kStart + 3900; time += 130) {
    expectAt(time);
    player.clock.AdvanceMilliseconds(130);
  }
  // Any time, asked for directly.
  player.control.PlaybackPause();
  for (const std::int64_t offset : {1016, 1017, 1500, 2216, 2217, 3000, 20}) {
    player.control.SetPlaybackTargetTime(kStart + offset);
    player.Settled();
    expectAt(kStart + offset);
  }
  // A step moves the current site by a picture, and the other one with it.
  player.control.SetPlaybackTargetTime(kStart + 1500);
  player.Settled();
  player.control.setCurrentSiteIdx(1);
  player.control.PlaybackStepForward();
  EXPECT_EQ(player.Settled(1), 63);
  EXPECT_EQ(player.control.GetPlaybackTime(), b.TimeOf(63));
  expectAt(b.TimeOf(63));
  EXPECT_LE(player.control.GetMaximumSkew(), 170);  // the clock of this test leaps
}

// One timeline over three files, two of them overlapping, and a gap; the second site is in its own.
TEST(Playback, SeveralFilesAreOneTimelineAndACommonGapIsPassedOver) {
  Player player;
  ClipRecording parts[3];
  parts[0].count = 60;
  parts[1].first = 40;
  parts[1].start = kStart + 40 * 40;  // overlaps the first by 20 pictures
  parts[1].count = 40;
  parts[2].first = 80;
  parts[2].start = kStart + 600'000;
  parts[2].count = 30;
  for (int i = 0; i < 3; ++i) {
    parts[i].Make().Write(player.Path(std::to_string(i) + ".drv"));
  }
  ClipRecording other;
  other.first = 100;
  other.start = kStart + 600'400;
  other.count = 20;
  other.Make().Write(player.Path("other.drv"));
  player.AddSite({"2.drv", "0.drv", "1.drv", "missing.drv"});
  player.AddSite({"other.drv"});
  ASSERT_TRUE(player.Start()) << player.control.GetLastErrorText();
  player.control.PlaybackResume();
  player.Settled();  // the clock goes from now on
  for (int number = 0; number < 80; ++number) {
    ASSERT_TRUE(player.Shows(number)) << player.Number();
    player.clock.AdvanceMilliseconds(40);
  }
  ASSERT_TRUE(player.Shows(80)) << player.Number();  // ten minutes later, at once
  EXPECT_EQ(player.control.GetPlaybackTime(), kStart + 600'000);
  for (int number = 80; number < 109; ++number) {
    ASSERT_TRUE(player.Shows(number)) << number << player.Number();
    player.clock.AdvanceMilliseconds(40);
  }
  EXPECT_TRUE(player.Shows(119, 1));
  EXPECT_EQ(player.control.IsAllEndOfFile(), 0);
  player.clock.AdvanceMilliseconds(40);
  EXPECT_TRUE(test::WaitFor([&] { return player.control.IsAllEndOfFile() == 1; }));
  EXPECT_TRUE(player.Shows(109)) << player.Number();  // the clock stands at the last picture
  EXPECT_EQ(player.control.GetPlaybackTime(), parts[2].TimeOf(109));
  player.clock.AdvanceMilliseconds(5000);
  EXPECT_EQ(player.control.GetPlaybackTime(), parts[2].TimeOf(109));

  while (player.control.GetPlaySpeed() > 0) {
    player.control.PlaybackSetSlowDown();
  }
  ASSERT_EQ(player.Settled(), 109);
  for (int number = 109; number >= 0; --number) {
    ASSERT_TRUE(player.Shows(number)) << number << " is " << player.Number();
    player.clock.AdvanceMilliseconds(40);
  }
  EXPECT_TRUE(test::WaitFor([&] { return player.control.IsAllEndOfFile() == 1; }));
  EXPECT_TRUE(player.Shows(0)) << player.Number();
  // Into the gap: what comes next.
  player.control.PlaybackResume();
  player.Settled();  // the clock goes from now on
  player.control.SetPlaybackTargetTime(kStart + 300'000);
  EXPECT_EQ(player.Settled(), 80);
}

// In a gap, and behind its end, a channel steps back to the picture that it left.
TEST(Playback, AStepBackOutOfAGapShowsThePictureInFrontOfIt) {
  Player player;
  ClipRecording parts[2];
  parts[0].count = 20;
  parts[1].first = 20;
  parts[1].start = kStart + 60'000;
  parts[1].count = 20;
  parts[0].Make().Write(player.Path("0.drv"));
  parts[1].Make().Write(player.Path("1.drv"));
  ClipRecording other;
  other.count = 250;
  other.interval = 400;
  other.Make().Write(player.Path("other.drv"));
  player.AddSite({"0.drv", "1.drv"});
  player.AddSite({"other.drv"});
  ASSERT_TRUE(player.Start());
  const struct {
    std::int64_t time;
    int back;
  } cases[] = {{kStart + 30'000, 19}, {kStart + 90'000, 39}};
  for (const auto& each : cases) {
    player.control.SetPlaybackTargetTime(each.time);
    EXPECT_EQ(player.Settled(), -2);
    player.control.PlaybackStepBackward();
    EXPECT_EQ(player.Settled(), each.back);
    player.control.PlaybackStepBackward();
    EXPECT_EQ(player.Settled(), each.back - 1);
    player.control.SetPlaybackTargetTime(each.time);
    player.Settled();
    player.control.PlaybackStepBackward();  // two that come at once
    player.control.PlaybackStepBackward();
    EXPECT_EQ(player.Settled(), each.back - 1);
  }
}

TEST(Playback, WhatTheViewerChoseHoldsBeforeTheStartAndAfterAStop) {
  Player player;
  for (const char* name : {"a.drv", "b.drv", "c.drv"}) {
    ClipRecording().Make().Write(player.Path(name));
    player.AddSite({name});
  }
  auto& control = player.control;
  control.setCurrentSplitMode(1);
  control.setCurrentSiteIdx(1);
  EXPECT_EQ(control.SetQuickSearch(1, 0, 1), 0);  // nothing is configured yet
  ASSERT_EQ(control.SetConfig(player.config), 1);
  EXPECT_EQ(control.SetQuickSearch(1, 0, 1), 1);
  EXPECT_EQ(control.SetQuickSearch(1, 1, 1), 0);
  EXPECT_EQ(control.S_ON_DDCH_ONE(3, 0, 0), 0);
  for (int session = 0; session < 2; ++session) {
    ASSERT_EQ(control.StartPlayback(), 1);
    control.SetPlaybackTargetTime(kStart + 15 * 40);
    EXPECT_EQ(player.Settled(1), 10);
    EXPECT_EQ(control.IsQuickSearch(1), 1);
    EXPECT_EQ(player.Number(0), -2);
    EXPECT_EQ(control.GetChFrameState(0, 0), cms::PLAYBACK_CHANNEL_OFF);
    EXPECT_EQ(control.GetChFrameState(2, 0), cms::PLAYBACK_CHANNEL_OFF);
    control.StopPlayback();
  }
  control.setCurrentSplitMode(0);
  EXPECT_EQ(control.S_ON_DDCH_ONE(1, 0, 0), 1);
  ASSERT_EQ(control.StartPlayback(), 1);
  EXPECT_EQ(player.Settled(0), 0);
  EXPECT_EQ(player.Number(1), -2);
  EXPECT_EQ(player.Number(2), 0);
}

// The view is that of the whole picture shown, in a size of its own, while paused and playing.
TEST(Playback, LooksAroundInAFisheyePicture) {
  Player player;
  ClipRecording().Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  auto& control = player.control;
  const auto shown = [&](tagSIZE* size) {
    const unsigned char* const pixels = control.LockDecodedImage(0, 0, size);
    std::vector<std::uint8_t> copy(pixels, pixels + size->cx * size->cy * 4);
    control.UnlockDecodedImage(0, 0);
    return copy;
  };
  cms::FisheyeSettings settings;
  settings.parameter = {.mount = 1, .viewMode = 4, .centerX = 80, .centerY = 48, .radius = 85};
  settings.Move({0, {10, -5}, 1.5F});
  const tagSIZE room{120, 60};
  cms::FisheyeJob job;
  job.lens = settings.Lens();
  job.view = settings.View();
  job.source = {160, 96};
  job.shown = {120, 60};
  cms::FisheyeDewarper dewarper;
  ASSERT_TRUE(dewarper.Prepare(job));
  for (const int number : {0, 1}) {
    tagSIZE size;
    const auto whole = shown(&size);
    ASSERT_EQ(size.cx, 160);
    std::vector<std::uint8_t> wanted(120 * 60 * 4);
    ASSERT_TRUE(dewarper.DewarpBgra(whole, 160 * 4, wanted, 120 * 4));
    ASSERT_EQ(control.SetFisheye(0, 0, settings), 1);  // first: the new size is a view's
    ASSERT_EQ(control.SetDecoderRenderCallback(0, 0, &room, nullptr), 1);
    std::vector<std::uint8_t> seen;
    ASSERT_TRUE(test::WaitFor([&] {
      seen = shown(&size);
      return size.cx == 120 && size.cy == 60;
    }));
    double off = 0;
    for (std::size_t i = 0; i < seen.size(); ++i) {
      off += std::abs(seen[i] - wanted[i]);
    }
    EXPECT_LT(off / static_cast<double>(seen.size()), 4) << number;
    ASSERT_EQ(control.SetFisheye(0, 0, {}), 1);
    ASSERT_EQ(control.SetDecoderRenderCallback(0, 0, nullptr, nullptr), 1);
    control.PlaybackStepForward();
    ASSERT_EQ(player.Settled(), number + 1);
  }
}

// The stepping channel's disk does not answer: the others take the step over.
TEST(Playback, AStepDoesNotWaitForADiskThatHangs) {
  test::FaultyFileIo files;
  cms::ReplaceFileIo(&files);
  {
    Player player;
    ClipRecording parts[2];
    parts[0].count = 20;
    parts[1].first = 20;
    parts[1].start = kStart + 800;
    parts[1].count = 20;
    parts[0].Make().Write(player.Path("0.drv"));
    parts[1].Make().Write(player.Path("1.drv"));
    ClipRecording other;
    other.Make().Write(player.Path("other.drv"));
    player.AddSite({"0.drv", "1.drv"});
    player.AddSite({"other.drv"});
    ASSERT_TRUE(player.Start());
    player.control.SetPlaybackTargetTime(kStart + 5 * 40);
    ASSERT_EQ(player.Settled(), 5);
    files.HangAt(player.Path("0"));
    player.control.SetPlaybackTargetTime(kStart);
    EXPECT_TRUE(test::WaitFor([&] { return files.Hanging() > 0; }));
    player.control.PlaybackStepForward();
    EXPECT_TRUE(test::WaitFor([&] {
      player.clock.AdvanceMilliseconds(50);
      return player.control.WaitUntilShown(10) != 0;
    }));
    EXPECT_EQ(player.Number(1), 1);
    files.HangAt("");
  }
  cms::ReplaceFileIo(nullptr);
}

}  // namespace
