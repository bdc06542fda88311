// The controller under everything that clients do at once: every operation, in any order, against
// threads that look at pictures all the time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/playback/clip_recording.h"

namespace {

using test::ClipRecording;
using test::kStart;
using test::Player;

// ORVANTA_TRANSPORT_OPERATIONS sets how many; 10,000 take 12 seconds under
// ThreadSanitizer.
int Operations() {
  const char* const wanted = std::getenv("ORVANTA_TRANSPORT_OPERATIONS");
  return wanted != nullptr ? std::atoi(wanted) : 2000;
}

TEST(PlaybackThreads, RandomTransportUnderLoad) {
  Player player;
  std::vector<ClipRecording> recordings(4);
  for (std::size_t i = 0; i < recordings.size(); ++i) {
    recordings[i].start = kStart + static_cast<std::int64_t>(i) * 313;
    recordings[i].count = 200;
    recordings[i].audio = true;
    const std::string name = std::to_string(i) + ".drv";
    recordings[i].Make().Write(player.Path(name));
    player.AddSite({name});
  }
  std::atomic<std::uint64_t> heard{0};
  std::atomic<std::uint64_t> seen{0};
  struct Counters {
    std::atomic<std::uint64_t>* heard;
    std::atomic<std::uint64_t>* seen;
  } counters{&heard, &seen};
  player.config.context = &counters;
  player.config.onAudio = [](void* context, const cms::_MULTI_PB_AUDIO_BLOCK*) {
    static_cast<Counters*>(context)->heard->fetch_add(1);
  };
  player.config.onPicture = [](void* context, unsigned, unsigned, std::int64_t) {
    static_cast<Counters*>(context)->seen->fetch_add(1);
  };
  ASSERT_TRUE(player.Start());
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> viewers;
  for (unsigned v = 0; v < 2; ++v) {
    viewers.emplace_back([&, v] {
      for (unsigned i = v; !stop; ++i) {
        const unsigned site = i % 4;
        wrong += player.Number(site) == -1 ? 1 : 0;
        if (player.control.LockImage(site, 0) != 0) {
          tagBITMAPINFO head;
          unsigned char* pixels = nullptr;
          wrong += player.control.CurImageGet(site, 0, head, pixels) == 1 ? 0 : 1;
          player.control.UnLockImage(site, 0);
        }
        player.control.GetChFrameState(site, 0);
        cms::stPlaybackChannelStatus status;
        player.control.GetChannelStatus(site, 0, &status);
        std::this_thread::yield();
      }
    });
  }
  std::thread time([&] {
    while (!stop) {
      player.clock.AdvanceMilliseconds(3);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::mt19937 random(7);
  const int operations = Operations();
  for (int i = 0; i < operations; ++i) {
    auto& control = player.control;
    const unsigned site = random() % 4;
    switch (random() % 16) {
      case 0:
        control.PlaybackPause();
        break;
      case 1:
      case 2:
        control.PlaybackResume();
        break;
      case 3:
        control.PlaybackStepForward();
        break;
      case 4:
        control.PlaybackStepBackward();
        break;
      case 5:
      case 6:
        control.PlaybackSetSpeedUp();
        break;
      case 7:
      case 8:
        control.PlaybackSetSlowDown();
        break;
      case 9:
        control.PlaybackSetSlowMode(static_cast<int>(random() % 2));
        break;
      case 10:
      case 11:
        control.SetPlaybackTargetTime(kStart - 500 + static_cast<std::int64_t>(random() % 10'000));
        break;
      case 12:
        control.setCurrentSplitMode(static_cast<int>(random() % 5));
        control.setCurrentSiteIdx(static_cast<int>(site));
        break;
      case 13:
        control.SetQuickSearch(site, 0, static_cast<int>(random() % 2));
        control.SetAllAudioState(static_cast<int>(random() % 2));
        break;
      case 14: {
        const tagSIZE size = random() % 2 == 0 ? tagSIZE{80, 48} : tagSIZE{};
        control.SetDecoderRenderCallback(site, 0, &size, nullptr);
        break;
      }
      default:
        control.S_ON_DDCH_ONE(site, 0, static_cast<int>(random() % 4));
        break;
    }
    if (random() % 8 == 0) {
      control.WaitUntilShown(20);
    }
    if (i % 200 == 199) {  // stopped and begun again wherever it is
      control.StopPlayback();
      ASSERT_EQ(control.StartPlayback(), 1);
    }
  }
  // It still plays as at the beginning, once what was chosen is, too.
  player.control.StopPlayback();
  player.control.setCurrentSplitMode(0);
  player.control.setCurrentSiteIdx(0);
  ASSERT_EQ(player.control.SetConfig(player.config), 1);
  ASSERT_EQ(player.control.StartPlayback(), 1);
  player.control.SetPlaybackTargetTime(recordings[0].TimeOf(77));
  EXPECT_EQ(player.Settled(), 77);
  stop = true;
  time.join();
  for (std::thread& viewer : viewers) {
    viewer.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(seen, 0u);
}

TEST(PlaybackThreads, EndsAtAnyMoment) {
  auto player = std::make_unique<Player>();
  for (int i = 0; i < 3; ++i) {
    const std::string name = std::to_string(i) + ".drv";
    ClipRecording().Make().Write(player->Path(name));
    player->AddSite({name});
  }
  player->config.startPaused = false;
  for (int i = 0; i < 20; ++i) {
    CCMSMultiSitePlaybackCtrl control;
    ASSERT_EQ(control.SetConfig(player->config), 1);
    ASSERT_EQ(control.StartPlayback(), 1);
    if (i % 3 == 1) {
      control.PlaybackSetSlowDown();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(i));
    if (i % 2 == 0) {
      control.StopPlayback();
    }
  }
}

// A picture that is looked at stays as it is, while others are shown and after playback has ended.
TEST(PlaybackThreads, ALockedPictureHoldsNobodyUp) {
  Player player;
  ClipRecording().Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  ASSERT_TRUE(player.Start());
  tagSIZE size;
  const unsigned char* const pixels = player.control.LockDecodedImage(0, 0, &size);
  ASSERT_NE(pixels, nullptr);
  for (int number = 1; number < 20; ++number) {
    player.control.PlaybackStepForward();
    ASSERT_EQ(player.Settled(), number);
  }
  player.control.StopPlayback();
  EXPECT_EQ(test::ReadFrameNumber(pixels, static_cast<int>(size.cx), static_cast<int>(size.cy),
                                  static_cast<int>(size.cx) * 4, test::kClipWidth),
            0);
  player.control.UnlockDecodedImage(0, 0);
}

TEST(PlaybackThreads, APausedControllerCostsNothing) {
  Player player;
  ClipRecording().Make().Write(player.Path("a.drv"));
  for (int i = 0; i < 8; ++i) {
    player.AddSite({"a.drv"});
  }
  ASSERT_TRUE(player.Start());
  player.control.PlaybackPause();
  const auto spent = [] { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; };
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // what is in work is finished
  const double before = spent();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(spent() - before, 0.1);  // eight threads that turned would take two cores
}

TEST(PlaybackThreads, SoundComesWithItsPicturesAtSpeedOne) {
  Player player;
  ClipRecording recording;
  recording.audio = true;
  recording.Make().Write(player.Path("a.drv"));
  player.AddSite({"a.drv"});
  struct Heard {
    std::mutex lock;
    std::vector<std::string> blocks;
  } heard;
  player.config.context = &heard;
  player.config.onAudio = [](void* context, const cms::_MULTI_PB_AUDIO_BLOCK* block) {
    auto* const all = static_cast<Heard*>(context);
    const std::lock_guard guard(all->lock);
    EXPECT_EQ(block->codecId, 0x10006u);
    EXPECT_EQ(block->sampleRate, 8000u);
    EXPECT_STREQ(block->device, "desk");
    all->blocks.emplace_back(reinterpret_cast<const char*>(block->data),
                             static_cast<std::size_t>(block->size));
  };
  ASSERT_TRUE(player.Start());
  player.control.SetAudio(0, "desk");
  const auto play = [&](int first, int behind) {
    player.control.SetPlaybackTargetTime(recording.TimeOf(first));
    player.control.PlaybackResume();
    player.Settled();
    for (int number = first; number < behind; ++number) {
      ASSERT_TRUE(player.Shows(number));
      player.clock.AdvanceMilliseconds(40);
    }
    player.control.PlaybackPause();
    player.control.WaitUntilShown(30'000);
  };
  play(0, 5);
  EXPECT_TRUE(heard.blocks.empty());  // its switch is off
  player.control.SetChAudioState(0, 0, 1);
  play(10, 35);
  std::vector<std::string> expected;
  for (int number = 11; number < 35; ++number) {
    expected.push_back("sound " + std::to_string(number));
  }
  EXPECT_TRUE(test::WaitFor([&] {
    const std::lock_guard guard(heard.lock);
    return std::search(heard.blocks.begin(), heard.blocks.end(), expected.begin(),
                       expected.end()) != heard.blocks.end();
  })) << testing::PrintToString(heard.blocks);
}

}  // namespace
