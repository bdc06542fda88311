#include "cms/live/media/frame.h"

#include <gtest/gtest.h>

#include <array>

#include "cms/live/media/frame_header.h"

namespace {

constexpr std::array<std::uint8_t, 7> kPayload = {1, 2, 3, 4, 5, 6, 7};

cms::FrameView ViewOf(const std::array<std::uint8_t, cms::kVideoHeaderRoom>& area, int size) {
  return cms::FrameOf(area.data(), size, kPayload.data(), kPayload.size(), 9, 12'345);
}

TEST(FrameView, KnowsWhatItsHeaderSays) {
  std::array<std::uint8_t, cms::kVideoHeaderRoom> area;
  cms::VideoFrameInfo info;
  info.payloadSize = kPayload.size();
  info.hostSeconds = 1'700'000'000;
  info.frameType = cms::kKeyFrame;
  cms::BuildVideoFrameHeader(area, info);
  ASSERT_TRUE(cms::SetDeviceEventMark(std::span(area).first<cms::kDrvHeaderSize>(), 9));

  const cms::FrameView frame = ViewOf(area, static_cast<int>(area.size()));
  EXPECT_TRUE(frame.key);
  EXPECT_FALSE(frame.audio);
  EXPECT_EQ(frame.seconds, 1'700'000'000u);
  EXPECT_EQ(frame.marks, (cms::EventMarks{true, false, false})) << "those of its own channel";
  EXPECT_EQ(frame.fields.AreaLength(), frame.header.size());
  EXPECT_EQ(frame.fields.PayloadLength(), frame.payload.size());
  EXPECT_EQ(frame.payload.data(), kPayload.data()) << "a view";
  EXPECT_EQ(frame.arrivalUs, 12'345u);

  for (const int size : {-1, 0, 31}) {
    const cms::FrameView none = ViewOf(area, size);
    EXPECT_FALSE(none.fields.HasSync()) << "no header for the recorder, of " << size << " bytes";
    EXPECT_FALSE(none.key);
  }
}

TEST(FrameView, KnowsTheMicrosecondsThatItsHeaderTellsInBytesThatWereReserved) {
  for (const std::uint32_t within : {0u, 1u, 65'535u, 999'999u}) {
    std::array<std::uint8_t, cms::kVideoHeaderRoom> area;
    cms::VideoFrameInfo video;
    video.hostSeconds = 1'700'000'000;
    video.clockOffset = 3600;
    video.microseconds = within;
    cms::BuildVideoFrameHeader(area, video);
    EXPECT_EQ(ViewOf(area, static_cast<int>(area.size())).timeUs, 1'700'003'600'000'000 + within);
    cms::AudioFrameInfo sound;
    static_cast<cms::FrameInfo&>(sound) = video;
    sound.format = {0x15002, 48'000, 2, 16, {}};
    cms::BuildAudioFrameHeader(std::span(area).first<cms::kAudioHeaderRoom>(), sound);
    const cms::FrameView frame = ViewOf(area, cms::kAudioHeaderRoom);
    EXPECT_TRUE(frame.fields.Holds());
    EXPECT_EQ(frame.timeUs, 1'700'003'600'000'000 + within);
  }
}

}  // namespace
