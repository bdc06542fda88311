// The decoder classes: against libavcodec on encoded and on random blocks, and under lying lengths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/audio/ms_adpcm_decoder.h"
#include "cms/audio/pcm_decoder.h"
#include "cms/exports/audio_exports.h"
#include "cms/live/media/codec_id.h"
#include "tests/support/audio_codec.h"

namespace {

using testing::Each;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

void Start(CAudioDecoderBase& decoder, std::uint32_t blockSize, std::uint32_t channels = 1,
           int codecId = 0) {
  const cms::CAudioDecoderConfig config{codecId, blockSize, channels, 0, nullptr};
  ASSERT_EQ(decoder.Initialize(&config), 1);
}

Bytes Output(CAudioDecoderBase& decoder) {
  unsigned char* data = nullptr;
  unsigned int length = 0;
  EXPECT_EQ(decoder.GetDecodedData(&data, &length), 1);
  EXPECT_EQ(data, decoder.GetOutputBuffer());
  return {data, data + length};
}

Samples ToSamples(const Bytes& bytes) {
  Samples samples(bytes.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  }
  return samples;
}

// A block of Microsoft's IMA layout ends in the header and data of a device's block, one or two
// states of four bytes included.
Bytes DeviceBlock(const Bytes& wavBlock, int channels) {
  Bytes block(static_cast<std::size_t>(IMAADPCMDecoder::kHeaderSize - 4 * channels), 0xEE);
  block.insert(block.end(), wavBlock.begin(), wavBlock.end());
  return block;
}

// What libavcodec decodes behind the samples of the header; a device's channels are the other way
// round.
Samples WavSamples(const Bytes& wavBlock, int channels) {
  Samples samples = test::DecodeAudio(AV_CODEC_ID_ADPCM_IMA_WAV, channels, wavBlock);
  EXPECT_FALSE(samples.empty());
  samples.erase(samples.begin(), samples.begin() + channels);
  for (std::size_t i = 0; channels == 2 && i < samples.size(); i += 2) {
    std::swap(samples[i], samples[i + 1]);
  }
  return samples;
}

Samples DecodeIma(IMAADPCMDecoder& decoder, const Bytes& block, unsigned mode) {
  const int length = static_cast<int>(block.size()) - IMAADPCMDecoder::kHeaderSize;
  EXPECT_EQ(decoder.Decode(block.data(), length, mode), 1);
  return ToSamples(Output(decoder));
}

TEST(IMAADPCMDecoder, DecodesEncodedBlocksAsLibavcodec) {
  for (const int channels : {1, 2}) {
    IMAADPCMDecoder decoder;
    Start(decoder, 512, static_cast<std::uint32_t>(channels));
    const auto blocks = test::EncodeAudio(AV_CODEC_ID_ADPCM_IMA_WAV, channels, 512,
                                          test::TestSound(20000, channels));
    ASSERT_GT(blocks.size(), 10u);
    for (const Bytes& block : blocks) {
      EXPECT_EQ(DecodeIma(decoder, DeviceBlock(block, channels), 0), WavSamples(block, channels));
    }
  }
}

TEST(IMAADPCMDecoder, DecodesRandomBlocksAsLibavcodec) {
  std::mt19937 random(1);
  for (const int channels : {1, 2}) {
    IMAADPCMDecoder decoder;
    Start(decoder, 512, static_cast<std::uint32_t>(channels));
    for (int round = 0; round < 100; ++round) {
      Bytes block(static_cast<std::size_t>(4 * channels + 8 * (1 + round % 60)));
      std::generate(block.begin(), block.end(),
                    [&] { return static_cast<std::uint8_t>(random()); });
      for (std::size_t index = 2; index < static_cast<std::size_t>(4 * channels); index += 4) {
        block[index] = static_cast<std::uint8_t>(block[index] % 89);
        block[index + 1] = 0;
      }
      EXPECT_EQ(DecodeIma(decoder, DeviceBlock(block, channels), 0), WavSamples(block, channels));
    }
  }
}

// A mode leaves one stream out: what it decodes is what both together give, the rest is silent.
TEST(IMAADPCMDecoder, ChannelModes) {
  const auto encoded =
      test::EncodeAudio(AV_CODEC_ID_ADPCM_IMA_WAV, 2, 512, test::TestSound(3000, 2));
  IMAADPCMDecoder decoder;
  Start(decoder, 512, 2);
  const Bytes block = DeviceBlock(encoded.at(3), 2);
  const Samples both = DecodeIma(decoder, block, 0);
  ASSERT_NE(both[0], 0);
  ASSERT_NE(both[1], 0);
  for (const unsigned mode : {1u, 2u, 3u, UINT_MAX}) {
    Samples expected = both;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const unsigned carrier = i % 2 == 0 ? 1u : 2u;
      expected[i] = mode == carrier ? both[i] : std::int16_t{0};
    }
    EXPECT_EQ(DecodeIma(decoder, block, mode), expected) << mode;
    EXPECT_EQ(decoder.GetIndexAndPrediction(block.data(), mode), mode <= 2 ? 1 : 0);
  }
  EXPECT_EQ(decoder.GetIndexAndPrediction(nullptr, 0), 0);

  // Mono always is the second state, which modes 2 and 3 start from zero.
  IMAADPCMDecoder mono;
  Start(mono, 512, 1);
  Bytes zeroed = block;
  std::fill_n(zeroed.begin() + 60, 3, std::uint8_t{0});
  EXPECT_EQ(DecodeIma(mono, block, 2), DecodeIma(mono, zeroed, 0));
  EXPECT_EQ(DecodeIma(mono, block, 1), DecodeIma(mono, block, 0));
  EXPECT_NE(DecodeIma(mono, block, 1), DecodeIma(mono, block, 3));
}

TEST(IMAADPCMDecoder, DecodesWholeGroupsAndReportsTheData) {
  IMAADPCMDecoder decoder;
  Start(decoder, 9);
  const Bytes block(64 + 9, 0x77);
  ASSERT_EQ(decoder.Decode(block.data(), 9, 0), 1);
  EXPECT_EQ(Output(decoder).size(), 36u);
  ADPCMState state{.stepIndex = 88, .predictedSample = 0x7777};  // 0x77 is above 88
  const auto* samples = reinterpret_cast<const std::int16_t*>(decoder.GetOutputBuffer());
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(samples[i], DecodeADPCMC(i < 18 ? 7 : 0, &state)) << i;
  }
  for (const int length : {0, -1, INT_MIN, 10, INT_MAX}) {
    EXPECT_EQ(decoder.Decode(block.data(), length, 0), 0) << length;
    EXPECT_EQ(Output(decoder).size(), 0u);
  }
}

// Code by code, the exported pair is libavcodec's encoder and decoder.
TEST(ADPCM, EncodesAsLibavcodec) {
  const Samples sound = test::TestSound(20000, 1);
  const auto blocks = test::EncodeAudio(AV_CODEC_ID_ADPCM_IMA_WAV, 1, 256, sound);
  std::size_t at = 0;
  for (const Bytes& block : blocks) {
    ADPCMState encoder{.stepIndex = block[2],
                       .predictedSample = static_cast<std::int16_t>(block[0] | block[1] << 8)};
    ADPCMState decoder = encoder;
    int lastCode = -1;
    ++at;  // the header holds the first sample
    for (std::size_t i = 8; i < block.size() * 2 && at < sound.size(); ++i, ++at) {
      const int theirs = i % 2 == 0 ? block[i / 2] & 0xF : block[i / 2] >> 4;
      if (lastCode < 0) {  // the state is up to date already: a bad code leaves it so
        testing::internal::CaptureStderr();
      }
      const int code = EncodeADPCMC(sound[at], lastCode, &encoder);
      if (lastCode < 0) {
        testing::internal::GetCapturedStderr();
      }
      ASSERT_EQ(code, theirs) << "sample " << at;
      ASSERT_EQ(encoder.predictedSample, decoder.predictedSample);
      ASSERT_EQ(DecodeADPCMC(code, &decoder), decoder.predictedSample);
      lastCode = code;
    }
  }
  EXPECT_EQ(at, sound.size());
}

// libavcodec puts the older of the header's samples first, and ends with the block.
void ExpectAsLibavcodec(MSADPCMDecoder& decoder, const Bytes& block) {
  Samples expected = test::DecodeAudio(AV_CODEC_ID_ADPCM_MS, 1, block);
  ASSERT_EQ(expected.size(), 2 * block.size() - 12);
  std::swap(expected[0], expected[1]);
  Bytes readable = block;
  readable.resize(block.size() + MSADPCMDecoder::kBytesReadBehind);
  ASSERT_EQ(decoder.Decode(readable.data(), static_cast<int>(block.size()), 0), 1);
  Samples ours = ToSamples(Output(decoder));
  ASSERT_EQ(ours.size(), 2 * block.size());
  ours.resize(expected.size());
  EXPECT_EQ(ours, expected);
}

TEST(MSADPCMDecoder, DecodesAsLibavcodec) {
  MSADPCMDecoder decoder;
  Start(decoder, 1024);
  for (const Bytes& block :
       test::EncodeAudio(AV_CODEC_ID_ADPCM_MS, 1, 256, test::TestSound(20000, 1))) {
    ExpectAsLibavcodec(decoder, block);
  }
  std::mt19937 random(2);
  for (unsigned round = 0; round < 200; ++round) {
    Bytes block(8 + random() % 900);
    std::generate(block.begin(), block.end(), [&] { return static_cast<std::uint8_t>(random()); });
    block[0] = static_cast<std::uint8_t>(round % 7);
    ExpectAsLibavcodec(decoder, block);
  }
  Bytes growing(1000, 0x88);  // the delta triples with each code until it must not any more
  growing[0] = 0;
  ExpectAsLibavcodec(decoder, growing);
}

TEST(MSADPCMDecoder, SixBytesBehindTheBlockAreItsEnd) {
  MSADPCMDecoder decoder;
  Start(decoder, 20);
  const Bytes longer = {9, 16, 0, 100, 0, 50, 0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
  ASSERT_EQ(decoder.Decode(longer.data(), 8, 0), 1);
  const Bytes whole = Output(decoder);
  EXPECT_EQ(whole.size(), 32u);
  Bytes sixth = longer;
  sixth[0] = 6;  // coefficient sets above 6 count as 6
  sixth.resize(longer.size() + MSADPCMDecoder::kBytesReadBehind);
  ASSERT_EQ(decoder.Decode(sixth.data(), 14, 0), 1);
  Bytes start = Output(decoder);
  start.resize(whole.size());
  EXPECT_EQ(start, whole);
  EXPECT_THAT(ToSamples(start), testing::Contains(testing::Ne(0)));
}

TEST(PCMDecoder, ByteOrderAndSign) {
  const Bytes block = {0x00, 0x01, 0x80, 0xFF, 0x7F};
  const auto decode = [&](int codecId) {
    PCMDecoder decoder;
    Start(decoder, 5, 1, codecId);
    EXPECT_EQ(decoder.Decode(block.data(), 5, 0), 1);
    return Output(decoder);
  };
  EXPECT_EQ(decode(cms::CMS_CODEC_PCM_S16LE), block);
  EXPECT_EQ(decode(12345), block);
  EXPECT_THAT(decode(cms::CMS_CODEC_PCM_S16BE), ElementsAre(0x01, 0x00, 0xFF, 0x80, 0x7F));
  EXPECT_THAT(decode(cms::CMS_CODEC_PCM_U8), ElementsAre(0x80, 0x81, 0x00, 0x7F, 0xFF));
}

TEST(G711Decoders, DecodeAsTheExports) {
  Bytes codes;
  for (int code = 0; code < 256; ++code) {
    codes.push_back(static_cast<std::uint8_t>(code));
  }
  const auto expect = [&](CAudioDecoderBase& decoder, auto* exported) {
    Samples expected(256);
    exported(codes.data(), 256, expected.data(), 512);
    Start(decoder, 256);
    EXPECT_EQ(decoder.Decode(codes.data(), 256, 0), 1);
    EXPECT_EQ(ToSamples(Output(decoder)), expected);
  };
  ALawDecoder aLaw;
  MULawDecoder muLaw;
  expect(aLaw, g711_aDecoder);
  expect(muLaw, g711_uDecoder);
}

// Every length of a small buffer and the worst ones: AddressSanitizer sees a write behind it.
template <typename Decoder>
class AnyDecoder : public testing::Test {};
using Decoders =
    testing::Types<PCMDecoder, ALawDecoder, MULawDecoder, MSADPCMDecoder, IMAADPCMDecoder>;
TYPED_TEST_SUITE(AnyDecoder, Decoders);

TYPED_TEST(AnyDecoder, RefusesWhatDoesNotFit) {
  const Bytes block(1000, 0x5A);
  for (const std::uint32_t size : {0u, 1u, 7u, 8u, 100u}) {
    for (const std::uint32_t channels : {0u, 1u, 2u}) {
      TypeParam decoder;
      Start(decoder, size, channels);
      for (int length = 1; length < 300; ++length) {
        const bool fits = static_cast<std::uint32_t>(length) <= size * channels;
        EXPECT_EQ(decoder.Decode(block.data(), length, 0), fits ? 1 : 0) << length;
      }
      for (const int length : {0, -1, INT_MIN, INT_MAX, INT_MAX / 2 + 1, INT_MAX / 4 + 1}) {
        EXPECT_EQ(decoder.Decode(block.data(), length, 0), 0) << length;
      }
      EXPECT_EQ(decoder.Decode(nullptr, 1, 0), 0);
      EXPECT_THAT(Output(decoder), Each(0));
    }
  }
}

TYPED_TEST(AnyDecoder, Life) {
  const Bytes block(200, 1);
  TypeParam decoder;
  unsigned char* data = nullptr;
  unsigned int length = 1;
  const auto expectNothing = [&] {
    EXPECT_EQ(decoder.IsInitialized(), 0);
    EXPECT_EQ(decoder.Decode(block.data(), 8, 0), 0);
    EXPECT_EQ(decoder.GetDecodedData(&data, &length), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(decoder.GetOutputBuffer(), nullptr);
  };
  expectNothing();
  EXPECT_EQ(decoder.Initialize(nullptr), 0);
  for (int round = 0; round < 2; ++round) {
    Start(decoder, 10);
    Start(decoder, 100);
    EXPECT_EQ(decoder.IsInitialized(), 1);
    EXPECT_EQ(decoder.Decode(block.data(), 100, 0), 1);
    EXPECT_EQ(decoder.Release(), 1);
    expectNothing();
  }
  const cms::CAudioDecoderConfig huge{0, UINT32_MAX, UINT32_MAX, 0, nullptr};
  EXPECT_EQ(decoder.Initialize(&huge), 0);
  expectNothing();
}

// A lost block plays as silence of the last one's length.
TEST(PCMDecoder, SilenceForAMissingBlock) {
  PCMDecoder decoder;
  Start(decoder, 4, 1, cms::CMS_CODEC_PCM_S16LE);
  const Bytes block = {1, 2, 3, 4};
  ASSERT_EQ(decoder.Decode(block.data(), 4, 0), 1);
  EXPECT_EQ(decoder.Decode(nullptr, 4, 0), 0);
  EXPECT_THAT(Output(decoder), ElementsAre(0, 0, 0, 0));
}

}  // namespace
