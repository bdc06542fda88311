// Recordings with B-frames: the k-th time shows the k-th picture, though it lies elsewhere.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/playback/clip_recording.h"

namespace {

using test::ClipRecording;
using test::kStart;
using test::Player;

struct Reordered {
  const char* name;
  test::ClipCodec codec;
  int bframes;
};

std::vector<test::EncodedFrame> Encode(const Reordered& kind, bool openGroups) {
  test::ClipSpec spec;
  spec.codec = kind.codec;
  spec.profile = test::ClipProfile::kHigh;
  spec.width = test::kClipWidth;
  spec.height = 96;
  spec.frames = 60;
  spec.gop = 12;
  spec.bframes = kind.bframes;
  spec.openGroups = openGroups;
  return test::EncodeClip(spec);
}

class ReorderedPlayback : public testing::TestWithParam<Reordered> {
 protected:
  void Play() {
    ClipRecording recording;
    recording.count = static_cast<int>(clip_.size());
    recording.clip = &clip_;
    recording.Make().Write(player_.Path("a.drv"));
    player_.AddSite({"a.drv"});
    ASSERT_TRUE(player_.Start());
  }
  int At(int number) {
    player_.control.SetPlaybackTargetTime(kStart + number * 40);
    return player_.Settled();
  }

  std::vector<test::EncodedFrame> clip_;
  Player player_;
};

TEST_P(ReorderedPlayback, ShowsTheKthPictureAtTheKthTime) {
  clip_ = Encode(GetParam(), false);
  Play();
  ASSERT_NE(clip_[1].pts, 1);
  ASSERT_EQ(player_.Number(), 0);
  player_.control.PlaybackResume();
  player_.Settled();  // the clock goes from now on
  ASSERT_TRUE(player_.Plays(0, 50));
  ASSERT_EQ(player_.control.PlaybackSetSlowDown(), 1);
  ASSERT_EQ(player_.Settled(), 50);
  ASSERT_TRUE(player_.Plays(50, 0));
  cms::stPlaybackChannelStatus status;
  ASSERT_EQ(player_.control.GetChannelStatus(0, 0, &status), 1);
  EXPECT_EQ(status.shown, 51u + 50u);
  EXPECT_EQ(status.lost, 0u);
  player_.control.PlaybackPause();
  for (int number = 1; number < 30; ++number) {
    player_.control.PlaybackStepForward();
    ASSERT_EQ(player_.Settled(), number);
  }
  for (int number = 28; number > 5; --number) {
    player_.control.PlaybackStepBackward();
    ASSERT_EQ(player_.Settled(), number);
  }
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(At(i * 37 % 60), i * 37 % 60);
  }
}

// B-frames behind a key frame that need the group before it are left out; nothing stands for them.
TEST_P(ReorderedPlayback, ShowsNoOtherPictureInAnOpenGroup) {
  clip_ = Encode(GetParam(), true);
  Play();
  std::int64_t key = 0;
  int missing = 0;
  for (const test::EncodedFrame& frame : clip_) {
    key = frame.key ? frame.pts : key;
    missing -= frame.pts < key ? 1 : 0;
  }
  ASSERT_LE(missing, -4);
  const auto check = [&](int number, int shown) {
    missing += shown == -2 ? 1 : 0;
    EXPECT_TRUE(shown == number || shown == -2) << number << " is " << shown;
  };
  for (int i = 0; i < 60; ++i) {
    check(i * 37 % 60, At(i * 37 % 60));
  }
  EXPECT_EQ(missing, 0);
  for (int number = At(30); number > 6; --number) {
    player_.control.PlaybackStepBackward();
    check(number - 1, player_.Settled());
  }
  // At high speed the key frame stands for its group.
  player_.control.PlaybackResume();
  for (int speed = 1; speed < 5; ++speed) {
    player_.control.PlaybackSetSpeedUp();
  }
  player_.Settled();
  for (int i = 0; i < 60; ++i) {
    if (clip_[static_cast<std::size_t>(i)].key) {
      EXPECT_EQ(At(i), clip_[static_cast<std::size_t>(i)].pts);
    }
  }
}

// Behind a damaged frame the numbers may be wrong by as much as pictures are held back, but not
// beyond the group.
TEST_P(ReorderedPlayback, NumbersGoOnBehindADamagedFrame) {
  clip_ = Encode(GetParam(), false);
  clip_[15].data.assign(20, 0xFF);  // a B-frame of the second group
  Play();
  int missing = 0;
  for (int number = 0; number < 36; ++number) {
    const int shown = At(number);
    if (shown < 0) {
      ++missing;
    } else {
      EXPECT_LE(std::abs(shown - number), number < 12 || number >= 24 ? 0 : 1) << number;
    }
  }
  EXPECT_EQ(missing, 1);
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReorderedPlayback,
                         testing::Values(Reordered{"H264", test::ClipCodec::kH264, 2},
                                         Reordered{"H264Pyramid", test::ClipCodec::kH264, 3},
                                         Reordered{"H265", test::ClipCodec::kH265, 2},
                                         Reordered{"Mpeg4", test::ClipCodec::kMpeg4, 2}),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace
