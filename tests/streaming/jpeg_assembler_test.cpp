#include "cms/streaming/internal/jpeg_assembler.h"

#include <gtest/gtest.h>

#include "tests/streaming/unit_receiver.h"
#include "tests/support/data_file.h"
#include "tests/support/decoded_picture.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/ffmpeg_sender.h"

namespace {

using test::JpegReceiver;
using test::RtpPacket;
using test::RtpPackets;
using Block = std::vector<std::uint8_t>;

constexpr std::size_t kPayload = test::kRtpHeader;  // where the JPEG payload header begins

Block Jpeg(int width, int height, int bitrate = 0) {
  return test::EncodeClip({.codec = test::ClipCodec::kMjpeg,
                           .width = width,
                           .height = height,
                           .frames = 1,
                           .bitrate = bitrate,
                           .noise = true})[0]
      .data;
}

void ExpectSamePicture(const Block& received, const Block& sent) {
  const auto picture = test::DecodePicture(AV_CODEC_ID_MJPEG, sent);
  ASSERT_FALSE(picture.empty());
  EXPECT_TRUE(test::DecodePicture(AV_CODEC_ID_MJPEG, received) == picture);
}

TEST(JpegAssembler, EachPictureHasTheTablesThatCameWithIt) {
  const std::vector<Block> jpegs = {Jpeg(320, 240), Jpeg(320, 240, 200'000),
                                    Jpeg(320, 240, 4'000'000)};
  JpegReceiver ours;
  test::RtpPacketizer rtp;
  for (const Block& jpeg : jpegs) {
    ours.Feed(rtp.Jpeg(jpeg, {.endMarker = false}));
  }
  JpegReceiver ffmpeg;
  ffmpeg.Feed(test::MuxRtp(AV_CODEC_ID_MJPEG, jpegs));
  ASSERT_EQ(ours.units.size(), jpegs.size());
  ASSERT_EQ(ffmpeg.units.size(), jpegs.size());
  for (std::size_t i = 0; i < jpegs.size(); ++i) {
    ExpectSamePicture(ours.units[i].data, jpegs[i]);
    ExpectSamePicture(ffmpeg.units[i].data, jpegs[i]);
    EXPECT_TRUE(ours.units[i].key && ours.units[i].decodable);
    EXPECT_EQ(ours.units[i].newSize.has_value(), i == 0);
  }
  EXPECT_EQ(ours.units[0].newSize, (cms::PictureSize{320, 240}));
}

TEST(JpegAssembler, SizesThatThePayloadHeaderCannotTellAreTheDescriptions) {
  const cms::PictureSize size{2592, 1944};
  const Block jpeg = Jpeg(size.width, size.height);
  for (const bool zero : {true, false}) {  // else what is left of the width in its 8 bits
    JpegReceiver described(size);
    JpegReceiver undescribed;
    for (RtpPacket packet : test::RtpPacketizer().Jpeg(jpeg)) {
      if (zero) {
        packet[kPayload + 6] = packet[kPayload + 7] = 0;
      }
      described.Feed(packet);
      undescribed.Feed(packet);
    }
    ASSERT_EQ(described.units.size(), 1u);
    EXPECT_EQ(described.units[0].newSize, size);
    ExpectSamePicture(described.units[0].data, jpeg);
    EXPECT_EQ(undescribed.units.size(), zero ? 0u : 1u);
  }
}

TEST(JpegAssembler, RestartMarkersComeWithEitherSampling) {
  for (const char* const name :
       {"restart_interval_3_quality_90", "restart_interval_3_wide_chroma"}) {
    const std::string text = test::ReadDataFile("jpeg/" + std::string(name) + ".jpg");
    const Block jpeg(text.begin(), text.end());
    JpegReceiver receiver;
    receiver.Feed(test::RtpPacketizer(1, 700).Jpeg(jpeg));
    ASSERT_EQ(receiver.units.size(), 1u) << name;
    ExpectSamePicture(receiver.units[0].data, jpeg);
  }
}

TEST(JpegAssembler, ALostFragmentCostsItsPicture) {
  const Block jpeg = Jpeg(320, 240);
  test::RtpPacketizer rtp;
  const std::size_t count = rtp.Jpeg(jpeg).size();
  for (std::size_t lost = 0; lost < count; ++lost) {
    JpegReceiver receiver;
    for (int picture = 0; picture < 3; ++picture) {
      RtpPackets packets = rtp.Jpeg(jpeg);
      if (picture == 1) {
        packets.erase(packets.begin() + static_cast<std::ptrdiff_t>(lost));
      }
      receiver.Feed(packets);
    }
    ASSERT_EQ(receiver.units.size(), 2u) << lost;
    ExpectSamePicture(receiver.units[1].data, jpeg);
    EXPECT_EQ(receiver.assembler.DroppedUnits(), 1u);
  }
}

TEST(JpegAssembler, TablesLeftOutAreThoseOfTheSameQAndAHeaderInThePayloadIsTheJpegsOwn) {
  const Block jpeg = Jpeg(96, 64);
  test::RtpPacketizer rtp;
  JpegReceiver receiver;
  receiver.Feed(rtp.Jpeg(jpeg, {.q = 200}));
  for (const int q : {200, 201}) {
    RtpPackets packets = rtp.Jpeg(jpeg, {.q = q});
    RtpPacket& first = packets[0];
    first[kPayload + 10] = first[kPayload + 11] = 0;  // the length of the tables
    first.erase(first.begin() + kPayload + 12, first.begin() + kPayload + 12 + 128);
    receiver.Feed(packets);
  }
  ASSERT_EQ(receiver.units.size(), 2u) << "no tables came with 201";
  EXPECT_EQ(receiver.units[1].data, receiver.units[0].data);

  JpegReceiver whole;
  Block payload = {0, 0, 0, 0, 1, 60, 12, 8};
  payload.insert(payload.end(), jpeg.begin(), jpeg.end());
  whole.Feed(rtp.Packet(payload, true));
  ASSERT_EQ(whole.units.size(), 1u);
  EXPECT_EQ(whole.units[0].data, jpeg);
  EXPECT_EQ(whole.units[0].newSize, (cms::PictureSize{96, 64}));
}

}  // namespace
