// AAC and G.726 of the codec library's encoders: what is heard is what was spoken.
#include "cms/audio/compressed_sound_decoder.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/audio_codec.h"

namespace {

using Samples = std::vector<std::int16_t>;

struct Sound {
  cms::CMSCodecID codec;
  int rate;
  int channels;
  double leastQuality;  // dB
};

Samples Heard(cms::CompressedSoundDecoder& decoder, const std::vector<std::uint8_t>& block) {
  unsigned char* data = nullptr;
  unsigned int bytes = 0;
  if (decoder.Decode(block.data(), static_cast<int>(block.size()), 0) == 0 ||
      decoder.GetDecodedData(&data, &bytes) == 0) {
    return {};
  }
  const auto* const samples = reinterpret_cast<const std::int16_t*>(data);
  return {samples, samples + bytes / 2};
}

cms::CAudioDecoderConfig ConfigOf(const Sound& sound) {
  return {sound.codec, 4096, static_cast<std::uint32_t>(sound.channels),
          static_cast<std::uint32_t>(sound.rate), nullptr};
}

TEST(CompressedSoundDecoder, WhatIsHeardIsWhatWasSpoken) {
  for (const Sound& sound : {Sound{cms::CMS_CODEC_AAC, 8000, 1, 20},
                             {cms::CMS_CODEC_AAC, 16000, 1, 20},
                             {cms::CMS_CODEC_AAC, 48000, 2, 20},
                             {cms::CMS_CODEC_G726_16, 8000, 1, 8},
                             {cms::CMS_CODEC_G726_24, 8000, 1, 14},
                             {cms::CMS_CODEC_G726_32, 8000, 1, 20},
                             {cms::CMS_CODEC_G726_40, 8000, 1, 24},
                             {cms::CMS_CODEC_G726_AAL2_16, 8000, 1, 8},
                             {cms::CMS_CODEC_G726_AAL2_24, 8000, 1, 14},
                             {cms::CMS_CODEC_G726_AAL2_32, 8000, 1, 20},
                             {cms::CMS_CODEC_G726_AAL2_40, 8000, 1, 24}}) {
    SCOPED_TRACE(sound.codec);
    const auto rate = static_cast<std::size_t>(sound.rate);
    const Samples spoken = test::Tone(2 * rate, sound.rate, sound.channels);
    cms::CompressedSoundDecoder decoder;
    const cms::CAudioDecoderConfig config = ConfigOf(sound);
    ASSERT_EQ(decoder.Initialize(&config), 1);
    Samples heard;
    for (const auto& block : test::EncodeBlocks(sound.codec, sound.rate, sound.channels, spoken)) {
      const Samples samples = Heard(decoder, block);
      ASSERT_FALSE(samples.empty());
      heard.insert(heard.end(), samples.begin(), samples.end());
    }
    const std::size_t delay = sound.codec == cms::CMS_CODEC_AAC
                                  ? test::kAacDelay * static_cast<std::size_t>(sound.channels)
                                  : 0;
    ASSERT_GT(heard.size(), delay + rate);
    EXPECT_GE(test::SignalToNoise(spoken, std::span(heard).subspan(delay)), sound.leastQuality);
  }
}

// As a stream that doubles its rate, or is joined with other channels than it was described with.
TEST(CompressedSoundDecoder, TheOutputHasTheConfiguredFormat) {
  const auto blocks = test::EncodeBlocks(cms::CMS_CODEC_AAC, 32000, 2, test::Tone(32000, 32000, 2));
  cms::CompressedSoundDecoder decoder;
  const cms::CAudioDecoderConfig config = ConfigOf({cms::CMS_CODEC_AAC, 16000, 1, 0});
  ASSERT_EQ(decoder.Initialize(&config), 1);
  Samples heard;
  for (const auto& block : blocks) {
    const Samples samples = Heard(decoder, block);
    heard.insert(heard.end(), samples.begin(), samples.end());
  }
  ASSERT_NEAR(static_cast<double>(heard.size()), static_cast<double>(blocks.size()) * 512, 64);
  int crossings = 0;  // of the tone's 440 Hz, in half a second
  for (std::size_t i = 8000; i < 16000; ++i) {
    crossings += (heard[i - 1] < 0) != (heard[i] < 0) ? 1 : 0;
  }
  EXPECT_NEAR(crossings, 440, 4);
}

TEST(CompressedSoundDecoder, DamagedBlocksAreRefusedAndHarmNoOthers) {
  const Sound sound{cms::CMS_CODEC_AAC, 16000, 1, 0};
  const auto blocks = test::EncodeBlocks(sound.codec, sound.rate, 1, test::Tone(32000, 16000, 1));
  cms::CompressedSoundDecoder decoder;
  EXPECT_EQ(decoder.Decode(blocks[0].data(), 10, 0), 0) << "not initialised";
  cms::CAudioDecoderConfig config = ConfigOf(sound);
  ASSERT_EQ(decoder.Initialize(&config), 1);
  for (const auto& block : blocks) {
    auto damaged = block;
    damaged.resize(block.size() / 2);
    EXPECT_TRUE(Heard(decoder, damaged).empty());
    EXPECT_TRUE(Heard(decoder, {0xFF}).empty());
    EXPECT_EQ(decoder.Decode(nullptr, 10, 0), 0);
    EXPECT_EQ(decoder.Decode(block.data(), 0, 0), 0);
    EXPECT_EQ(Heard(decoder, block).size(), 1024u);
  }
  config.maximumBlockSize = 20;  // a decoded unit does not fit
  ASSERT_EQ(decoder.Initialize(&config), 1);
  EXPECT_TRUE(Heard(decoder, blocks[5]).empty());
  config.codecId = cms::CMS_CODEC_PCM_MULAW;
  EXPECT_EQ(decoder.Initialize(&config), 0);
}

}  // namespace
