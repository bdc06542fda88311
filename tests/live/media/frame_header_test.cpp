#include "cms/live/media/frame_header.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "cms/live/media/codec_id.h"

namespace {

using cms::kAudioHeaderRoom;
using cms::kVideoHeaderRoom;

std::vector<std::uint8_t> Video(const cms::VideoFrameInfo& info) {
  std::vector<std::uint8_t> area(kVideoHeaderRoom, 0xAA);
  cms::BuildVideoFrameHeader(std::span<std::uint8_t, kVideoHeaderRoom>(area), info);
  return area;
}

std::uint32_t FlagsOf(const std::vector<std::uint8_t>& header) {
  return header[12] | header[13] << 8 | static_cast<std::uint32_t>(header[14]) << 16;
}

cms::VideoFrameInfo KeyFrame() {
  cms::VideoFrameInfo info;
  info.payloadSize = 5000;
  info.hostSeconds = 0x1'6000'0000;
  info.clockOffset = -0x10;
  info.streamNumber = 3;
  info.announcedOtherRate = true;
  info.frameRate = 25.0;
  info.frameType = 1;
  info.videoType = 1;
  info.sequence = 0x01020304;
  return info;
}

}  // namespace

// Every byte of the area, written down by hand.
TEST(DRVFrameHeader, VideoBytes) {
  std::vector<std::uint8_t> expected(kVideoHeaderRoom, 0);
  const std::uint8_t base[32] = {0x40, 0x32, 0x10, 0x1C,  // "@2", version, stream 3
                                 0xA8, 0x13, 0x00, 0x00,  // 5032
                                 0xF0, 0xFF, 0xFF, 0x5F,  // time, low 32 bits, with the offset
                                 0x01, 0x65, 0x01, 0,     // other rate, 25 << 2 | 1, key frame
                                 0x00, 0x00, 116,  0,    0x04,  // area length, sequence
                                 0x03, 0x02, 0x01, 0,    0,     //
                                 0,    0,    0,    0,    0,    0};
  std::copy_n(base, 32, expected.begin());
  for (int i = 0; i < 15; ++i) {
    expected[15] ^= base[i];
    expected[31] ^= base[16 + i];
  }
  expected[116 - 30] = 1;
  expected[116 - 29] = 0xF0;
  expected[116 - 4] = 1;
  EXPECT_EQ(Video(KeyFrame()), expected);
}

TEST(DRVFrameHeader, VideoRatesTypesAndMarks) {
  const struct {
    double rate;
    std::uint32_t written;
  } rates[] = {{30, 30},      {29.97, 30}, {29.5, 29},
               {29.51, 30},   {0.4, 0},    {12.25, 12},
               {64, 0},       {-5, 0},     {1e300, 1'000'000 & 63},
               {0.0 / 0.0, 0}};
  for (const auto& [rate, written] : rates) {
    auto info = KeyFrame();
    info.frameRate = rate;
    EXPECT_EQ(FlagsOf(Video(info)) >> 10 & 0x3F, written) << rate;
  }
  auto info = KeyFrame();
  info.announcedOtherRate = false;
  info.frameType = 0x7A;  // the low three bits
  EXPECT_EQ(FlagsOf(Video(info)), 0x02'65'00u);
  const std::uint8_t marks[] = {0, 0xF0, 0xD0, 0xE0, 0xC0, 0};
  for (int type = 0; type < 6; ++type) {
    info.videoType = type;
    EXPECT_EQ(Video(info)[kVideoHeaderRoom - 29], marks[type]);
  }
}

TEST(DRVFrameHeader, AudioCarriesThePlainSizeAndTheFormat) {
  cms::AudioFrameInfo info;
  info.payloadSize = 320;
  info.hostSeconds = 1'000'000'000;
  info.streamNumber = 1;
  info.format = {cms::CMS_CODEC_PCM_MULAW, 8000, 1, 16, {1, 2, 3, 0xFF}};
  std::vector<std::uint8_t> bytes(kAudioHeaderRoom, 0xAA);
  cms::BuildAudioFrameHeader(std::span<std::uint8_t, kAudioHeaderRoom>(bytes), info);
  const std::vector<std::uint8_t> expected = {
      0x40,      0x32, 0x10, 0x14, 0x40, 0x01, 0x00, 0x00, 0x00, 0xCA, 0x9A, 0x3B, 0x04, 0x01, 0x01,
      bytes[15],  // checked below
      0x06,      0x00, 0x01, 0x00, 0x40, 0x1F, 0x00, 0x00, 0x01, 0x00, 0x10, 0x00, 1,    2,    3,
      bytes[31]};
  EXPECT_EQ(bytes, expected);
  // The XOR over a half with its check byte is nothing.
  EXPECT_EQ(cms::XorCheck(std::span(bytes).first(16)), 0);
  EXPECT_EQ(cms::XorCheck(std::span(bytes).last(16)), 0);
}

TEST(DRVFrameHeader, IsSealedAnewAfterAChange) {
  auto area = Video(KeyFrame());
  const std::span<std::uint8_t, 32> base = std::span<std::uint8_t>(area).first<32>();
  base[12] |= 0x82;
  base[28] = 0x10;
  EXPECT_NE(cms::XorCheck(base.first(16)), 0);
  cms::SealFrameHeader(base);
  EXPECT_EQ(cms::XorCheck(base.first(16)), 0);
  EXPECT_EQ(cms::XorCheck(base.last(16)), 0);
}
