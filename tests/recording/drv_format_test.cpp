#include "cms/recording/drv_format.h"

#include <gtest/gtest.h>

#include <span>
#include <string>

#include "tests/support/drv_generator.h"

namespace {

cms::DrvHeader HeaderOf(const std::string& frame) {
  return cms::DrvHeader(std::span<const std::uint8_t, cms::kDrvHeaderSize>(
      reinterpret_cast<const std::uint8_t*>(frame.data()), cms::kDrvHeaderSize));
}

TEST(DrvHeader, NumbersFollowTheByteOrderOfTheKind) {
  for (const char kind : {'2', '6', '8', 'v'}) {
    const auto header = HeaderOf(test::MakeDrvFrame({.kind = kind,
                                                     .frameType = 2,
                                                     .stream = 3,
                                                     .seconds = 0x65432109,
                                                     .sequence = 0x01020304,
                                                     .area = 0x0123,
                                                     .payload = std::string(0x4567, 'x')}));
    SCOPED_TRACE(kind);
    EXPECT_TRUE(header.Holds());
    EXPECT_EQ(header.Seconds(), 0x65432109u);
    EXPECT_EQ(header.AreaLength(), 0x0123u);
    EXPECT_EQ(header.PayloadLength(), 0x4567u);
    EXPECT_EQ(header.FrameLength(), 0x0123u + 0x4567u);
    EXPECT_EQ(header.Sequence(), 0x01020304u);
    EXPECT_EQ(header.StreamNumber(), 3);
    EXPECT_EQ(header.FrameType(), 2);
    EXPECT_FALSE(header.IsAudio() || header.IsKeyFrame());
  }
}

TEST(DrvHeader, AudioHasNoAreaAndCountsItsPayloadAlone) {
  const auto audio =
      HeaderOf(test::MakeDrvFrame({.audio = true, .payload = std::string(320, 'a')}));
  EXPECT_TRUE(audio.Holds() && audio.IsAudio() && !audio.IsKeyFrame());
  EXPECT_EQ(audio.FrameLength(), 352u);
  // Numbers too small to be true count as an empty payload behind a bare header.
  std::string frame = test::MakeDrvFrame({.area = 0});
  frame[4] = 31;
  test::Seal(frame);
  EXPECT_EQ(HeaderOf(frame).FrameLength(), 32u);
}

TEST(DrvHeader, EventMasksAndFlagsStandAtTheirPlaces) {
  std::string frame = test::MakeDrvFrame({});
  frame.replace(24, 6, "\x01\x80\x02\x40\x04\x20");
  EXPECT_EQ(HeaderOf(frame).AlarmMask(), 0x8001);
  EXPECT_EQ(HeaderOf(frame).VideoLossMask(), 0x4002);
  EXPECT_EQ(HeaderOf(frame).EventMask(), 0x2004);
  EXPECT_FALSE(HeaderOf(frame).MarksInFlags());
  frame[12] = static_cast<char>(0xE2);
  EXPECT_TRUE(HeaderOf(frame).MarksInFlags());
  EXPECT_EQ(HeaderOf(frame).Flags() & cms::kDrvFlagDeviceEvent, 0x80);
}

TEST(DrvHeader, AnyFlippedBitOfTheHeaderIsNoticed) {
  const std::string whole = test::MakeDrvFrame({.payload = "x"});
  for (std::size_t bit = 0; bit < 8 * cms::kDrvHeaderSize; ++bit) {
    std::string frame = whole;
    frame[bit / 8] = static_cast<char>(frame[bit / 8] ^ 1 << bit % 8);
    EXPECT_FALSE(HeaderOf(frame).Holds()) << bit;
  }
}

}  // namespace
