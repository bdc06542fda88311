#include "cms/streaming/mjpeg_rtp_processer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "cms/runtime/clock.h"
#include "cms/streaming/stream_probes.h"
#include "tests/streaming/frame_collector.h"
#include "tests/support/decoded_picture.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/paths.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using test::FrameCollector;
using test::JpegOptions;
using test::RtpPacketizer;
using Data = std::vector<std::uint8_t>;

Data ReadFile(const std::string& name) {
  std::ifstream file(test::DataFolder() + "/jpeg/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<int> PictureOf(const Data& jpeg) {
  return test::DecodePicture(AV_CODEC_ID_MJPEG, jpeg);
}

// The first payload of a frame: 8 bytes of header, then whatever the case needs.
Data Payload(unsigned type, unsigned q, unsigned width, unsigned height, const Data& rest,
             unsigned offset = 0) {
  Data payload = {0,
                  static_cast<std::uint8_t>(offset >> 16),
                  static_cast<std::uint8_t>(offset >> 8),
                  static_cast<std::uint8_t>(offset),
                  static_cast<std::uint8_t>(type),
                  static_cast<std::uint8_t>(q),
                  static_cast<std::uint8_t>(width / 8),
                  static_cast<std::uint8_t>(height / 8)};
  payload.insert(payload.end(), rest.begin(), rest.end());
  return payload;
}

Data InBand(const Data& tables, std::size_t announced) {
  Data rest = {0, 0, static_cast<std::uint8_t>(announced >> 8),
               static_cast<std::uint8_t>(announced)};
  rest.insert(rest.end(), tables.begin(), tables.end());
  return rest;
}

struct MjpegStream {
  MjpegStream() : collector(processer) {
    collector.Feed(rtp.Packet(Payload(1, 50, 64, 48, Data(30), 1), true));
  }
  int Send(const Data& payload, bool marker = true) {
    return collector.Feed(rtp.Packet(payload, marker));
  }
  const Data& Last() const { return collector.frames.back(); }
  MJPEGRTPProcesser processer;
  FrameCollector collector;
  RtpPacketizer rtp;
};

}  // namespace

TEST(MJPEGRTPProcesser, RealPicturesComeBackPixelForPixel) {
  for (const bool endMarker : {true, false}) {
    const auto clip = test::EncodeClip({.codec = test::ClipCodec::kMjpeg, .frames = 4});
    MJPEGRTPProcesser processer;
    FrameCollector collector(processer);
    RtpPacketizer rtp(500);
    for (const auto& frame : clip) {
      collector.Feed(rtp.Jpeg(frame.data, {.endMarker = endMarker}));
      rtp.Skip(1);  // gaps are not looked at
    }
    ASSERT_EQ(collector.frames.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
      const auto picture = PictureOf(clip[i + 1].data);
      ASSERT_FALSE(picture.empty());
      EXPECT_EQ(PictureOf(collector.frames[i]), picture) << i;
      EXPECT_EQ(cms::MjpegSize(collector.frames[i]), (cms::PictureSize{320, 240}));
    }
    EXPECT_EQ(processer.GetTotalLostCount(), 0u);
    EXPECT_EQ(processer.GetMissingPacketCount(), 3u);
  }
}

TEST(MJPEGRTPProcesser, ComputedTablesAndRestartMarkersOfAnotherEncoder) {
  const struct {
    const char* file;
    JpegOptions options;
    std::size_t header;
  } cases[] = {
      {"quality_50.jpg", {.q = 50}, 605},
      {"quality_50.jpg", {.q = 128}, 605},
      {"restart_interval_3_quality_90.jpg", {.q = 90}, 611},
      {"restart_interval_3_quality_90.jpg", {.q = 255}, 611},
  };
  for (const auto& c : cases) {
    const Data jpeg = ReadFile(c.file);
    const auto picture = PictureOf(jpeg);
    ASSERT_FALSE(picture.empty()) << c.file;
    MJPEGRTPProcesser processer;
    FrameCollector collector(processer);
    RtpPacketizer rtp(1, 700);
    collector.Feed(rtp.Jpeg(jpeg, c.options));
    collector.Feed(rtp.Jpeg(jpeg, c.options));
    ASSERT_EQ(collector.frames.size(), 1u) << c.file;
    EXPECT_EQ(PictureOf(collector.frames[0]), picture) << c.file << c.options.q;
    EXPECT_EQ(collector.frames[0][c.header - 14], 0xFF) << c.file;
    EXPECT_EQ(collector.frames[0][c.header - 13], 0xDA) << c.file << ": the scan header is last";
  }
}

TEST(MJPEGRTPProcesser, HeaderNamesSizeAndSampling) {
  for (const auto& [type, sampling] : {std::pair{0, 0x21}, {1, 0x22}, {64, 0x22}, {65, 0x22}}) {
    MjpegStream stream;
    const Data rest = type >= 64 ? Data(34, 0) : Data(30, 0);  // a restart interval of 0
    EXPECT_EQ(stream.Send(Payload(static_cast<unsigned>(type), 50, 640, 480, rest)), 1);
    ASSERT_EQ(stream.Last().size(), 605u + 30) << type;
    EXPECT_EQ(cms::MjpegSize(stream.Last()), (cms::PictureSize{640, 480}));
    const Data sof = {0xFF, 0xC0, 0,    0x11, 8, 0x01,
                      0xE0, 0x02, 0x80, 3,    0, static_cast<std::uint8_t>(sampling)};
    EXPECT_EQ(Data(stream.Last().begin() + 140, stream.Last().begin() + 152), sof) << type;
  }
}

TEST(MJPEGRTPProcesser, TablesFollowQTypeAndSizeAlone) {
  MjpegStream stream;
  const Data first(128, 11);
  const Data second(128, 22);
  const Data scan(40, 0x5A);
  const auto lumaEntry = [&] { return stream.Last()[7]; };
  const auto frame = [&](unsigned q, unsigned width, const Data& tables) {
    Data rest = InBand(tables, tables.size());
    rest.insert(rest.end(), scan.begin(), scan.end());
    ASSERT_EQ(stream.Send(Payload(1, q, width, 48, rest)), 1);
    ASSERT_EQ(stream.Last().size(), 605 + scan.size());
    EXPECT_EQ(Data(stream.Last().end() - 40, stream.Last().end()), scan);
  };
  frame(255, 64, first);
  EXPECT_EQ(lumaEntry(), 11);
  frame(255, 64, second);
  EXPECT_EQ(lumaEntry(), 11) << "unchanged Q keeps its tables";
  frame(255, 72, second);
  EXPECT_EQ(lumaEntry(), 22);
  frame(254, 72, {});
  EXPECT_EQ(lumaEntry(), 22) << "no tables in band: those of before";
  frame(253, 72, Data(64, 33));
  EXPECT_EQ(lumaEntry(), 33);
  EXPECT_EQ(stream.Last()[7 + 69], 22) << "one table replaces luminance only";
  frame(252, 72, Data(300, 44));
  EXPECT_EQ(lumaEntry(), 44) << "128 bytes are taken, all of them skipped";
  ASSERT_EQ(stream.Send(Payload(1, 252, 72, 56, InBand(Data(128, 55), 128))), 1);
  EXPECT_EQ(lumaEntry(), 55) << "the height alone differs";
  // Q below 128, at both clamps.
  ASSERT_EQ(stream.Send(Payload(1, 0, 72, 48, scan)), 1);
  EXPECT_EQ(lumaEntry(), 255);
  ASSERT_EQ(stream.Send(Payload(1, 127, 72, 48, scan)), 1);
  EXPECT_EQ(lumaEntry(), 1) << "taken for 99: (16 * 2 + 50) / 100 is 0";
  ASSERT_EQ(stream.Send(Payload(1, 75, 72, 48, scan)), 1);
  EXPECT_EQ(lumaEntry(), 8);
}

TEST(MJPEGRTPProcesser, HeadersCutShortDropTheFrameAndKeepTheStoredTables) {
  const Data good = Payload(1, 255, 64, 48, InBand(Data(128, 11), 128));
  const Data bad[] = {
      Data(7, 0),
      Payload(65, 50, 64, 48, {0, 3, 0xFF}),
      Payload(1, 254, 64, 48, {0, 0, 0}),
      Payload(1, 254, 64, 48, InBand(Data(127, 99), 128)),
      Payload(1, 254, 64, 48, InBand(Data(10, 99), 0xFFFF)),
      Payload(65, 254, 64, 48, {0, 3, 0xFF, 0xFF, 0, 0, 0, 1}),
  };
  for (const Data& payload : bad) {
    MjpegStream stream;
    Data scan = good;
    scan.resize(scan.size() + 30, 0x5A);
    ASSERT_EQ(stream.Send(scan), 1);
    const Data before = stream.Last();
    EXPECT_EQ(stream.Send(payload), 0) << testing::PrintToString(payload);
    EXPECT_EQ(stream.Send(scan), 0) << "the failed packet is no boundary";
    ASSERT_EQ(stream.Send(scan), 1);
    EXPECT_EQ(stream.Last(), before) << testing::PrintToString(payload);
  }
  // A stored header that is not for the new frame does not survive in part.
  EXPECT_EQ(CMJPEGMainHeader::GetDataOffset(Data(3, 0xFF)), 0u);
}

TEST(MJPEGRTPProcesser, CapacityHoldsForHeaderAndScanTogether) {
  for (const int extra : {0, 1}) {
    MjpegStream stream;
    int left = RTPProcesserBase::kFrameCapacity - 605 + extra;
    int delivered = 0;
    for (unsigned offset = 0; left > 0;) {
      const int count = std::min(left, 60000);
      left -= count;
      const Data scan(static_cast<std::size_t>(count), 1);
      delivered += stream.Send(Payload(1, 50, 64, 48, scan, offset), left == 0);
      offset += static_cast<unsigned>(count);
    }
    EXPECT_EQ(delivered, extra == 0 ? 1 : 0);
    EXPECT_EQ(stream.processer.GetOversizeFrameCount(), extra == 0 ? 0u : 1u);
  }
}

TEST(MJPEGRTPProcesser, OneKeyFrameASecondAndTheOthersInTurn) {
  struct : cms::Clock {
    std::uint64_t TickMilliseconds() const override { return 0; }
    std::int64_t WallSeconds() const override { return now; }
    std::int64_t now = 1000;
  } clock;
  cms::ReplaceClock(&clock);
  MJPEGRTPProcesser processer;
  std::vector<int> types;
  for (int i = 0; i < 600; ++i) {
    clock.now = 1000 + i / 300;
    types.push_back(0);
    processer.GetFrameData(nullptr, nullptr, &types.back());
  }
  cms::ReplaceClock(nullptr);
  for (std::size_t i = 0; i < types.size(); ++i) {
    const std::size_t inSecond = i % 300;  // beyond the counter's 8 bits
    ASSERT_EQ(types[i], inSecond == 0 ? 1 : inSecond % 2 == 1 ? 2 : 3) << i;
  }
}
