#include "cms/playback/multi_site_playback_ctrl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
  for (int number = 0; number < 45; ++number) {
    ASSERT_TRUE(player.Shows(number)) << number << " is " << player.Number();
    EXPECT_EQ(player.control.CurTimeGet(0, 0), kStart + number * 40);
    player.clock.AdvanceMilliseconds(40);
  }
  ASSERT_TRUE(player.Shows(45));
  ASSERT_EQ(player.control.PlaybackSetSlowDown(), 1);  // 1 becomes -1
  EXPECT_EQ(player.control.GetPlaySpeed(), -1);
  ASSERT_EQ(player.Settled(), 45);
  for (int number = 44; number >= 0; --number) {
    player.clock.AdvanceMilliseconds(40);
    // Just in front of a picture's time the one before it is due.
    ASSERT_TRUE(player.Shows(number) || (player.clock.AdvanceMilliseconds(1), player.Shows(number)))
        << number << " is " << player.Number();
  }
  stPlaybackChannelStatus status;
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

}  // namespace
