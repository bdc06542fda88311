// Players and microphones on the sound library's file and null devices: what was played is compared
// sample by sample.
#include "cms/audio/audio_player.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cms/audio/internal/g711.h"
#include "cms/exports/audio_player_exports.h"
#include "tests/support/wait.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::int16_t> ReadSamples(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
  std::vector<std::int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
  return samples;
}

// How often the feeding thread went to sleep; the process has other threads, a sanitizer's too.
long WakeUpsOfThePlayer() {
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    std::ifstream name(task.path() / "comm");
    std::string line;
    std::getline(name, line);
    std::ifstream status(task.path() / "status");
    for (std::string key; line == "cms-audio-out" && status >> key;) {
      if (long count = 0; key == "voluntary_ctxt_switches:" && status >> count) {
        return count;
      }
    }
  }
  ADD_FAILURE() << "there is no such thread";
  return 0;
}

class AudioDevices : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = fs::temp_directory_path() / ("orvanta-audio-" + std::to_string(::getpid()));
    fs::create_directories(folder_);
    std::vector<std::int16_t> voice(8000);
    for (std::size_t i = 0; i < voice.size(); ++i) {
      voice[i] = static_cast<std::int16_t>(i * 7);
    }
    std::ofstream(folder_ / "voice.raw", std::ios::binary)
        .write(reinterpret_cast<const char*>(voice.data()), 16000);
    std::ofstream(folder_ / "asound.conf")
        << "pcm.nothing { type null }\n"
        << "pcm.!default { type file slave.pcm nothing file '" << Played().string()
        << "' format raw hint { show on description 'the file of the tests' } }\n"
        << "pcm.second { type file slave.pcm nothing file '" << (folder_ / "second.raw").string()
        << "' format raw }\n"
        << "pcm.mouth { type file slave.pcm nothing file '/dev/null' infile '"
        << (folder_ / "voice.raw").string() << "' format raw }\n";
    ::setenv("ALSA_CONFIG_PATH", (folder_ / "asound.conf").c_str(), 1);
  }
  static void TearDownTestSuite() { fs::remove_all(folder_); }
  void TearDown() override {
    fs::remove(Played());
    fs::remove(folder_ / "second.raw");
  }

  static fs::path Played() { return folder_ / "played.raw"; }
  static inline fs::path folder_;
};

TEST_F(AudioDevices, PlaySampleBySampleInTheFormatOfEachBlock) {
  // What this sends ahead is within the delay: more would be mended, sample by sample.
  tCMSAudioPlayerConfig config{.delayMs = 250};
  cms::CCMSAudioPlayer player(config);
  EXPECT_FALSE(player.Play(reinterpret_cast<const unsigned char*>("x"), 1)) << "not started";
  ASSERT_TRUE(player.Start()) << player.GetStatus().error;
  std::vector<std::int16_t> expected;
  std::vector<unsigned char> block(160);
  for (int i = 0; i < 40; ++i) {  // 0.8 s
    for (std::size_t n = 0; n < block.size(); ++n) {
      block[n] = static_cast<unsigned char>(static_cast<std::size_t>(i) * 31 + n);
      expected.push_back(i < 20 ? cms::DecodeMuLaw(block[n]) : cms::DecodeALaw(block[n]));
    }
    if (i == 20) {
      config.codecId = cms::CMS_CODEC_PCM_ALAW;
      config.sampleRate = 16000;
      ASSERT_TRUE(player.SetFormat(config));
    }
    ASSERT_TRUE(player.Play(block.data(), static_cast<int>(block.size())));
    const auto soFar = expected.size();
    if (i % 10 == 9) {  // a block late or early is no matter, a second's backlog would be cut
      ASSERT_TRUE(test::WaitFor([&] { return player.GetStatus().playedFrames == soFar; }));
    }
  }
  const cms::CMSAudioPlayerStatus status = player.GetStatus();
  EXPECT_EQ(status.blocks, 40u);
  EXPECT_EQ(status.refusedBlocks, 1u);
  EXPECT_EQ(status.skippedFrames, 0u);
  EXPECT_FALSE(player.Play(block.data(), 4097)) << "longer than configured";
  player.Stop();
  // The file is begun anew with each opening: the second format's part is what is left.
  expected.erase(expected.begin(), expected.begin() + 20 * 160);
  EXPECT_EQ(ReadSamples(Played()), expected);
}

TEST_F(AudioDevices, PlayEveryCodec) {
  const struct {
    std::int32_t codec;
    std::vector<unsigned char> block;
    std::vector<std::int16_t> samples;
  } kCases[] = {
      {cms::CMS_CODEC_PCM_S16LE, {0x34, 0x12, 0xFF, 0xFF}, {0x1234, -1}},
      {cms::CMS_CODEC_PCM_S16BE, {0x12, 0x34, 0xFF, 0xFF}, {0x1234, -1}},
      {cms::CMS_CODEC_PCM_U8, {0, 127, 0x80}, {0, 127 * 256, -128 * 256}},
  };
  for (const auto& each : kCases) {
    tCMSAudioPlayerConfig config{.codecId = each.codec, .delayMs = 20};
    cms::CCMSAudioPlayer player(config, "second");
    ASSERT_TRUE(player.Start()) << player.GetStatus().error;
    ASSERT_TRUE(player.Play(each.block.data(), static_cast<int>(each.block.size())));
    ASSERT_TRUE(
        test::WaitFor([&] { return player.GetStatus().playedFrames == each.samples.size(); }));
    player.Stop();
    EXPECT_EQ(ReadSamples(folder_ / "second.raw"), each.samples) << each.codec;
  }
  // Blocks with a header and bytes behind them: whole, damaged, too short.
  for (const auto codec : {cms::CMS_CODEC_ADPCM_IMA, cms::CMS_CODEC_ADPCM_MS}) {
    cms::CCMSAudioPlayer player(
        {.codecId = codec, .channels = codec == cms::CMS_CODEC_ADPCM_IMA ? 2u : 1u}, "second");
    ASSERT_TRUE(player.Start());
    std::vector<unsigned char> block(64 + 9, 0xFF);
    EXPECT_TRUE(player.Play(block.data(), 64 + 9));
    EXPECT_FALSE(player.Play(block.data(), 0));
    EXPECT_FALSE(player.Play(nullptr, 10));
  }
}

TEST_F(AudioDevices, StopAtAnyMomentAndStartAgain) {
  cms::CCMSAudioPlayer player({}, "nothing");
  std::atomic<bool> done{false};
  std::thread camera([&] {
    std::vector<unsigned char> block(160, 0x55);
    while (!done) {
      player.Play(block.data(), 160);
    }
  });
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(player.Start());
    std::this_thread::sleep_for(std::chrono::milliseconds(i % 3));
    player.Stop();
  }
  done = true;
  camera.join();
}

TEST_F(AudioDevices, AnAbsentDeviceIsNamed) {
  cms::CCMSAudioPlayer player({}, "no such card");
  EXPECT_FALSE(player.Start());
  EXPECT_NE(player.GetStatus().error.find("no such card"), std::string::npos);
  tCMSAudioPlayerConfig config;
  for (const auto& [codec, rate, channels] : {std::tuple{0, 8000u, 1u},
                                              {cms::CMS_CODEC_PCM_ALAW, 0u, 1u},
                                              {cms::CMS_CODEC_PCM_ALAW, 8000u, 3u}}) {
    config.codecId = codec;
    config.sampleRate = rate;
    config.channels = channels;
    EXPECT_EQ(CreateCMSAudioPlayer(&config, cms::kCMSAudioOutput, "nothing"), nullptr);
  }
}

TEST_F(AudioDevices, HandlesPlayCaptureAndList) {
  cms::CMSAudioDeviceInfo info;
  ASSERT_EQ(GetAudioDeviceInfoByAudioType(cms::kCMSAudioOutput, 0, &info), 1);
  EXPECT_STREQ(info.name, "default");
  EXPECT_STREQ(info.description, "the file of the tests");
  EXPECT_EQ(GetAudioDeviceInfoByAudioType(cms::kCMSAudioOutput, 1000, &info), 0);

  tCMSAudioPlayerConfig config{.codecId = cms::CMS_CODEC_PCM_MULAW, .device = 0};
  const cms::CMSAudioPlayerHandle player =
      CreateCMSAudioPlayer(&config, cms::kCMSAudioOutput, nullptr);
  const auto* const codes = reinterpret_cast<const unsigned char*>("voice");
  EXPECT_EQ(PlayAudio(player, codes, 5), 0);
  EXPECT_EQ(StartAudioPlayer(player), 1);
  EXPECT_EQ(PlayAudio(player, codes, 5), 1);
  EXPECT_EQ(GetIndexAndPrediction(player, codes, 0), 1);
  EXPECT_EQ(StopAudioPlayer(player), 1);
  EXPECT_EQ(StopAudioPlayer(player), 0);
  DestroyAudioPlayer(player);

  const cms::CMSAudioPlayerHandle microphone =
      CreateCMSAudioPlayer(&config, cms::kCMSAudioInput, "mouth");
  unsigned char block[160];
  EXPECT_EQ(GetEncodeAudioData(microphone, block, sizeof block, 0), 0) << "not started";
  ASSERT_EQ(StartAudioPlayer(microphone), 1);
  EXPECT_EQ(PlayAudio(microphone, codes, 5), 0);
  EXPECT_EQ(GetEncodeAudioData(microphone, block, 159, 5000), -1);
  ASSERT_EQ(GetEncodeAudioData(microphone, block, sizeof block, 5000), 160);
  DestroyAudioPlayer(microphone);
  for (const auto invalid :
       {cms::CMSAudioPlayerHandle{}, reinterpret_cast<void*>(~std::uintptr_t{0})}) {
    EXPECT_EQ(StartAudioPlayer(invalid) + StopAudioPlayer(invalid) + PlayAudio(invalid, codes, 5) +
                  GetEncodeAudioData(invalid, block, 160, 0),
              0);
    DestroyAudioPlayer(invalid);
  }
}

// Its owner's threads may disagree: ThreadSanitizer looks.
TEST_F(AudioDevices, AMicrophoneStartsAndStopsFromTwoThreadsWhileAThirdFetches) {
  const tCMSAudioPlayerConfig config;
  const cms::CMSAudioPlayerHandle microphone =
      CreateCMSAudioPlayer(&config, cms::kCMSAudioInput, "mouth");
  std::atomic<bool> done{false};
  std::thread fetching([&] {
    unsigned char block[160];
    while (!done) {
      const int length = GetEncodeAudioData(microphone, block, sizeof block, 1);
      EXPECT_TRUE(length == 0 || length == 160);
    }
  });
  const auto switching = [&] {
    for (int i = 0; i < 30; ++i) {
      EXPECT_EQ(StartAudioPlayer(microphone), 1);
      StopAudioPlayer(microphone);
    }
  };
  std::thread other(switching);
  switching();
  other.join();
  done = true;
  fetching.join();
  DestroyAudioPlayer(microphone);
}

TEST_F(AudioDevices, AnIdlePlayerCostsNothing) {
  cms::CCMSAudioPlayer player({}, "nothing");
  ASSERT_TRUE(player.Start());
  const unsigned char block[160] = {};
  player.Play(block, 160);
  ASSERT_TRUE(test::WaitFor([&] { return player.GetStatus().playedFrames == 160; }));
  const long before = WakeUpsOfThePlayer();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LE(WakeUpsOfThePlayer() - before, 2) << "in an idle second";
}

}  // namespace
