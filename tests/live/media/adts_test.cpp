#include "cms/live/media/internal/adts.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/audio_codec.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// The muxer of the codec library writes the same headers.
TEST(Adts, HeadersAreThoseOfAnEncodersStream) {
  for (const auto& [rate, channels, config] :
       {std::tuple(16000, 1, Bytes{0x14, 0x08}), std::tuple(8000, 1, Bytes{0x15, 0x88}),
        std::tuple(44100, 2, Bytes{0x12, 0x10})}) {
    const auto told = cms::ReadAudioSpecificConfig(config);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->SampleRate(), static_cast<unsigned>(rate));
    const auto back = cms::AudioSpecificConfigOf(*told);
    EXPECT_EQ(Bytes(back.begin(), back.end()), config);
    const auto sound = test::Tone(5000, rate, channels);
    for (const Bytes& block : test::EncodeBlocks(cms::CMS_CODEC_AAC, rate, channels, sound)) {
      const auto frame = cms::ReadAdtsFrame(block);
      ASSERT_TRUE(frame);
      EXPECT_EQ(frame->format, *told);
      Bytes written(cms::kAdtsHeaderSize);
      ASSERT_TRUE(cms::WriteAdtsHeader(std::span(written).first<cms::kAdtsHeaderSize>(), *told,
                                       frame->unit.size()));
      written.insert(written.end(), frame->unit.begin(), frame->unit.end());
      EXPECT_EQ(written, block);
      for (std::size_t cut = 0; cut < block.size(); ++cut) {
        EXPECT_FALSE(cms::ReadAdtsFrame(std::span(block).first(cut)));
      }
    }
  }
}

TEST(Adts, ConfigurationsThatAHeaderCannotNameAreRefused) {
  const struct {
    const char* what;
    Bytes config;
    unsigned rate;  // 0: refused
  } cases[] = {{"SBR over AAC-LC of 22,050 Hz", {0x2B, 0x92, 0x08, 0x00}, 22050},
               {"a rate in full that the table has", {0x17, 0x80, 0x1F, 0x40, 0x08}, 16000},
               {"a rate that it has not", {0x17, 0x80, 0x1F, 0x48, 0x08}, 0},
               {"units of 960 samples", {0x14, 0x0C}, 0},
               {"channels that the stream describes", {0x14, 0x00}, 0},
               {"AAC-ELD", {0xF8, 0xEC, 0x20, 0x00}, 0},
               {"nothing", {}, 0},
               {"one byte", {0x14}, 0}};
  for (const auto& each : cases) {
    const auto format = cms::ReadAudioSpecificConfig(each.config);
    EXPECT_EQ(format ? format->SampleRate() : 0, each.rate) << each.what;
  }
  Bytes header(cms::kAdtsHeaderSize);
  const auto into = std::span(header).first<cms::kAdtsHeaderSize>();
  EXPECT_TRUE(cms::WriteAdtsHeader(into, {}, 8184));
  EXPECT_FALSE(cms::WriteAdtsHeader(into, {}, 8185));
}

}  // namespace
