#include "cms/exports/audio_exports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <vector>

#include "cms/live/media/codec_id.h"

namespace {

using testing::ElementsAre;

// Buffers of exactly the sizes told, so that AddressSanitizer sees a step too far.
int Encode(decltype(&g711_aEncoder) encode, int count, int outputSize) {
  const std::vector<short> samples(static_cast<std::size_t>(std::max(count, 1)), 1000);
  const auto codes = std::make_unique<unsigned char[]>(static_cast<std::size_t>(outputSize));
  return encode(samples.data(), count, codes.get(), outputSize);
}

TEST(G711Exports, EncodersReturnHalfTheCount) {
  for (const auto encode : {g711_aEncoder, g711_uEncoder}) {
    EXPECT_EQ(Encode(encode, 160, 160), 80);
    EXPECT_EQ(Encode(encode, 161, 161), 80);
    EXPECT_EQ(Encode(encode, 160, 80), 80);  // half of the codes fit, and no more are written
    EXPECT_EQ(Encode(encode, 160, 79), -1);
    EXPECT_EQ(Encode(encode, 0, 160), -1);
    EXPECT_EQ(Encode(encode, -1, 160), -1);
    const short sample = 0;
    unsigned char code = 0;
    EXPECT_EQ(encode(&sample, 1, &code, 1), 0);
    EXPECT_EQ(encode(&sample, 1, &code, 0), -1);
    EXPECT_EQ(encode(&sample, 1, &code, -1), -1);
    EXPECT_EQ(encode(nullptr, 1, &code, 1), -1);
    EXPECT_EQ(encode(&sample, 1, nullptr, 1), -1);
    EXPECT_EQ(encode(&sample, INT_MAX, &code, 1), -1);
  }
}

TEST(G711Exports, DecodersReturnBytes) {
  const std::vector<unsigned char> codes(160, 0xFF);
  const auto samples = std::make_unique<short[]>(160);
  for (const auto decode : {g711_aDecoder, g711_uDecoder}) {
    EXPECT_EQ(decode(codes.data(), 160, samples.get(), 320), 320);
    EXPECT_EQ(decode(codes.data(), 160, samples.get(), 319), -1);
    EXPECT_EQ(decode(codes.data(), 0, samples.get(), 320), -1);
    EXPECT_EQ(decode(codes.data(), 1, samples.get(), 0), -1);
    EXPECT_EQ(decode(codes.data(), INT_MAX, samples.get(), 320), -1);
    EXPECT_EQ(decode(codes.data(), INT_MAX, samples.get(), INT_MIN), -1);
    EXPECT_EQ(decode(nullptr, 160, samples.get(), 320), -1);
    EXPECT_EQ(decode(codes.data(), 160, nullptr, 320), -1);
  }
  EXPECT_EQ(samples[0], 0);  // mu-law 0xFF
  const unsigned char code = 0xD5;
  EXPECT_EQ(g711_aDecoder(&code, 1, samples.get(), 2), 2);
  EXPECT_EQ(samples[0], 8);
}

TEST(ADPCMExports, WrongCallsSayWhyAndChangeNothing) {
  ADPCMState state{.stepIndex = 10, .predictedSample = 100};
  for (const int code : {16, -1}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(DecodeADPCMC(code, &state), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[DecodeADPCMC] Error in ADPCM sample, aborting.\n\n");
  }
  EXPECT_EQ(state.stepIndex, 10);
  EXPECT_EQ(state.predictedSample, 100);
  testing::internal::CaptureStderr();
  EXPECT_EQ(DecodeADPCMC(3, nullptr), 0);
  EXPECT_EQ(EncodeADPCMC(1000, 3, nullptr), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[DecodeADPCMC] Error in ADPCMState, aborting.\n\n"
            "[DecodeADPCMC] Error in ADPCMState, aborting.\n\n");
}

TEST(ADPCMExports, StatesOutOfRangeAreBroughtIntoIt) {
  ADPCMState high{.stepIndex = INT_MAX, .predictedSample = INT_MAX};
  EXPECT_EQ(DecodeADPCMC(7, &high), 32767);
  EXPECT_EQ(high.stepIndex, 88);
  ADPCMState low{.stepIndex = INT_MIN, .predictedSample = INT_MIN};
  EXPECT_EQ(DecodeADPCMC(0, &low), -32768);
  EXPECT_EQ(low.stepIndex, 0);
  EXPECT_EQ(EncodeADPCMC(INT_MAX, 0, &low), 7);
  EXPECT_EQ(EncodeADPCMC(INT_MIN, 0, &high), 15);
}

// Followed by hand: steps 7, 16, 34, then 60 with the index at its end.
TEST(ADPCMExports, EightBitVariant) {
  const unsigned char input[] = {0x7F, 0x77};
  unsigned char output[8] = {};
  signed char index = 0;
  short predictor = 0;
  adpcm_decoder(input, output, 1, &index, &predictor);
  EXPECT_EQ(index, 16);
  EXPECT_EQ(predictor, -16);
  adpcm_decoder(input + 1, output + 4, 1, &index, &predictor);
  EXPECT_THAT(output, ElementsAre(12, 12, 0xF0, 0xF0, 43, 43, 127, 127));
  EXPECT_EQ(index, 22);
  EXPECT_EQ(predictor, 127);

  index = -128;
  predictor = -32768;
  adpcm_decoder(input, output, 2, &index, &predictor);  // from nowhere, and back in range
  EXPECT_THAT(output, ElementsAre(128, 128, 128, 128, 187, 187, 36, 36));
  index = 5;
  adpcm_decoder(input, output, 0, &index, &predictor);
  adpcm_decoder(nullptr, output, 1, &index, &predictor);
  EXPECT_EQ(index, 5);
}

TEST(FormatExports, TagsToCodecsAndRatios) {
  struct Case {
    std::uint16_t tag;
    std::uint16_t bits;
    int known;
    int codecId;
    int ratio;
  };
  for (const Case& each : {Case{1, 16, 1, cms::CMS_CODEC_PCM_S16LE, 1}, Case{1, 8, 0, 0, -5},
                           Case{6, 8, 1, cms::CMS_CODEC_PCM_ALAW, 2}, Case{7, 8, 1, 0x10006, 2},
                           Case{7, 16, 1, 0x10006, 2}, Case{2, 4, 0, 0, -5}}) {
    cms::CMSWaveFormat format{};
    format.formatTag = each.tag;
    format.bitsPerSample = each.bits;
    int codecId = -5;
    int ratio = -5;
    EXPECT_EQ(GetAudioCodecIDFromAudioFmtTag(&codecId, &format), each.known);
    EXPECT_EQ(GetAudioCompressRatioFromAudioFmtTag(&ratio, &format), each.known);
    EXPECT_EQ(codecId, each.codecId) << each.tag << ", " << each.bits;
    EXPECT_EQ(ratio, each.ratio) << each.tag << ", " << each.bits;
  }
  int codecId = -5;
  EXPECT_EQ(GetAudioCodecIDFromAudioFmtTag(&codecId, nullptr), 0);
  EXPECT_EQ(codecId, 0);
  const cms::CMSWaveFormat format{};
  EXPECT_EQ(GetAudioCodecIDFromAudioFmtTag(nullptr, &format), 0);
  EXPECT_EQ(GetAudioCompressRatioFromAudioFmtTag(nullptr, &format), 0);
}

}  // namespace
