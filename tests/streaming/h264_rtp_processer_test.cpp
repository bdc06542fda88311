#include "cms/streaming/h264_rtp_processer.h"

#include <gtest/gtest.h>

#include "tests/streaming/frame_collector.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using test::Bytes;
using test::FrameCollector;
using test::RtpPacketizer;
using Data = std::vector<std::uint8_t>;

Data Nal(unsigned type, std::size_t size, std::uint8_t fill = 0x77) {
  Data data(size, fill);
  data[0] = static_cast<std::uint8_t>(0x60 | type);
  return data;
}

Data AnnexB(const std::vector<Data>& units) {
  Data out;
  for (const Data& unit : units) {
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

Data StapA(const std::vector<Data>& units) {
  Data out = {24};
  for (const Data& unit : units) {
    out.push_back(static_cast<std::uint8_t>(unit.size() >> 8));
    out.push_back(static_cast<std::uint8_t>(unit.size()));
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

Data FuA(unsigned type, bool start, bool end, std::size_t size, std::uint8_t fill = 0x77) {
  Data data(size + 2, fill);
  data[0] = 0x60 | 28;
  data[1] = static_cast<std::uint8_t>((start ? 0x80 : 0) | (end ? 0x40 : 0) | type);
  return data;
}

const Data kH264Sps = {0x67, 0x42, 0, 0x1E, 1, 2, 3, 4, 5, 6};
const Data kH264Pps = {0x68, 0xCE, 0x38, 0x80};
const Data kDelimiter = {9, 0xF0};

// A processer that has just seen the end of a frame, and what it delivers.
struct H264Stream {
  explicit H264Stream(bool ignoreDelimiters = false, bool withSets = true) : collector(processer) {
    processer.SetIgnoreDelimiters(ignoreDelimiters);
    if (withSets) {
      Data sps = kH264Sps;
      Data pps = kH264Pps;
      processer.SetSPSSet(sps.data(), static_cast<unsigned>(sps.size()));
      processer.SetPPSSet(pps.data(), static_cast<unsigned>(pps.size()));
    }
    Send(Nal(1, 30), true);
  }
  int Send(const Data& payload, bool marker = false) {
    return collector.Feed(rtp.Packet(payload, marker));
  }
  H264RTPProcesser processer;
  FrameCollector collector;
  RtpPacketizer rtp;
};

}  // namespace

TEST(H264RTPProcesser, RealFramesComeBackInEveryPacketization) {
  for (const auto profile : {test::ClipProfile::kBaseline, test::ClipProfile::kHigh}) {
    for (const bool noise : {false, true}) {
      const auto clip =
          test::EncodeClip({.frames = 24, .gop = 8, .profile = profile, .noise = noise});
      for (const bool aggregate : {false, true}) {
        for (const std::size_t mtu : {100u, 1400u, 9000u}) {
          H264RTPProcesser processer;
          FrameCollector collector(processer);
          RtpPacketizer rtp(65530, mtu);
          for (const auto& frame : clip) {
            collector.Feed(rtp.H264(frame.data, aggregate));
          }
          ASSERT_EQ(collector.frames.size(), 16u);
          for (std::size_t i = 0; i < 16; ++i) {
            ASSERT_EQ(collector.frames[i], test::WithLongStartCodes(clip[i + 8].data)) << i;
            ASSERT_EQ(collector.types[i], clip[i + 8].key ? 1 : 2) << i;
          }
          // The encoder's long SEI in front of the first picture ends a frame when fragmented.
          EXPECT_EQ(processer.GetDroppedFrameCount(), mtu == 100 ? 9u : 8u);
        }
      }
    }
  }
}

TEST(H264RTPProcesser, KeyFrameStarts) {
  // Which first packet behind a frame end is taken, with and without stored parameter sets.
  const struct {
    const char* name;
    Data payload;
    bool withSets;
    bool withoutSets;
  } cases[] = {
      {"IDR", Nal(5, 30), true, true},
      {"SPS", Nal(7, 30), true, true},
      {"PPS", Nal(8, 30), false, false},
      {"SEI", Nal(6, 30), false, false},
      {"slice", Nal(1, 30), false, false},
      {"FU-A IDR start", FuA(5, true, false, 30), true, false},
      {"FU-A IDR middle", FuA(5, false, false, 30), false, false},
      {"FU-A slice start", FuA(1, true, false, 30), false, false},
      {"STAP-A with an SPS behind others", StapA({Nal(6, 9), kH264Sps, kH264Pps}), true, true},
      {"STAP-A with an IDR", StapA({kH264Pps, Nal(5, 30)}), false, false},
      {"delimiter", kDelimiter, false, false},
  };
  for (const auto& c : cases) {
    for (const bool withSets : {true, false}) {
      H264Stream stream(false, withSets);
      stream.Send(c.payload);
      const bool taken = stream.Send(FuA(5, false, true, 40)) == 1;
      EXPECT_EQ(taken, withSets ? c.withSets : c.withoutSets) << c.name << withSets;
    }
  }
}

TEST(H264RTPProcesser, StoredParameterSetsGoInFrontOfAFragmentedIdrOnly) {
  H264Stream stream;
  stream.Send(FuA(5, true, false, 20));
  EXPECT_EQ(stream.Send(FuA(5, false, true, 20)), 1);
  const Data idr = Nal(5, 41);
  EXPECT_EQ(stream.collector.frames.back(), AnnexB({kH264Sps, kH264Pps, idr}));
  stream.Send(kH264Sps);
  EXPECT_EQ(stream.Send(FuA(5, true, true, 40)), 1);
  EXPECT_EQ(stream.collector.frames.back(), AnnexB({kH264Sps, idr})) << "the frame was not empty";
  EXPECT_EQ(stream.Send(FuA(1, true, true, 40)), 1);
  EXPECT_EQ(stream.collector.frames.back(), AnnexB({Nal(1, 41)}));
  EXPECT_EQ(stream.collector.types, (std::vector<int>{1, 1, 2}));

  unsigned char* data = nullptr;
  unsigned length = 0;
  stream.processer.GetSPSSet(&data, length);
  EXPECT_EQ(Data(data, data + length), kH264Sps);
  Data longer(300, 8);
  stream.processer.SetPPSSet(longer.data(), 300);
  stream.processer.GetPPSSet(&data, length);
  EXPECT_EQ(Data(data, data + length), longer);
}

TEST(H264RTPProcesser, FrameEnds) {
  // The FU-A end bit ends a frame without a marker; a marker on a header unit or aggregate does
  // not.
  H264Stream stream;
  EXPECT_EQ(stream.Send(kH264Sps, true), 0);
  EXPECT_EQ(stream.Send(kH264Pps, true), 0);
  EXPECT_EQ(stream.Send(Nal(6, 30), true), 0);
  EXPECT_EQ(stream.Send(StapA({Nal(5, 30)}), true), 0);
  EXPECT_EQ(stream.Send(FuA(1, true, false, 30), true), 0);
  EXPECT_EQ(stream.Send(FuA(1, false, true, 30), false), 1);
  EXPECT_EQ(stream.collector.frames.back(),
            AnnexB({kH264Sps, kH264Pps, Nal(6, 30), Nal(5, 30), Nal(1, 61)}));
}

TEST(H264RTPProcesser, SeiIsKeptAsMetadataUnlessTooLong) {
  H264Stream stream;
  stream.Send(Nal(6, 256));
  EXPECT_EQ(stream.processer.GotAMetadata(), 0) << "not from a frame that is discarded";
  stream.Send(Nal(5, 30), true);
  stream.Send(kH264Sps);
  stream.Send(Nal(6, 256, 1));
  stream.Send(Nal(6, 257, 2));
  EXPECT_EQ(stream.Send(Nal(5, 30), true), 1);
  EXPECT_EQ(stream.collector.frames.back(),
            AnnexB({kH264Sps, Nal(6, 256, 1), Nal(6, 257, 2), Nal(5, 30)}));
  Data copy(256);
  void* dest = copy.data();
  unsigned length = 0;
  ASSERT_EQ(stream.processer.GotAMetadata(), 1);
  stream.processer.GetMetadata(&dest, &length);
  EXPECT_EQ(length, 256u);
  EXPECT_EQ(copy, Nal(6, 256, 1));
  stream.processer.ResetMetadada();
  EXPECT_EQ(stream.processer.GotAMetadata(), 0);
}

TEST(H264RTPProcesser, UnsupportedTypesDropTheFrameUntilTheNextKeyFrame) {
  for (const unsigned type : {0u, 2u, 3u, 4u, 9u, 10u, 12u, 23u, 25u, 26u, 27u, 29u, 30u, 31u}) {
    H264Stream stream;
    stream.Send(kH264Sps);
    EXPECT_EQ(stream.Send(Nal(type, 30), true), 0) << type;
    EXPECT_EQ(stream.Send(Nal(5, 30), true), 0) << type << ": the failed packet is no boundary";
    EXPECT_EQ(stream.Send(Nal(5, 31), true), 1) << type;
    EXPECT_EQ(stream.collector.frames, std::vector<Data>{AnnexB({Nal(5, 31)})}) << type;
  }
}

TEST(H264RTPProcesser, PayloadsThatLieFailTheFrame) {
  Data longUnit = StapA({Nal(7, 20)});
  longUnit[2] = 21;
  Data halfSize = StapA({Nal(7, 20)});
  halfSize.push_back(0);
  const Data cases[] = {longUnit, halfSize, {28}, {0x7C}, StapA({kDelimiter}), {24, 0xFF}};
  for (const Data& payload : cases) {
    H264Stream stream;
    stream.Send(kH264Sps);
    stream.Send(payload);
    EXPECT_EQ(stream.Send(Nal(5, 30), true), payload == StapA({kDelimiter}) ? 1 : 0)
        << testing::PrintToString(payload);
    // As the first packet behind a frame end, where a key frame is looked for in it.
    for (const bool ignore : {false, true}) {
      H264Stream boundary(ignore);
      EXPECT_EQ(boundary.Send(payload, true), 0);
    }
  }
}

TEST(H264RTPProcesser, FrameEndInFrontOfAGapIsNoBoundary) {
  H264Stream stream;
  stream.rtp.Skip(1);
  EXPECT_EQ(stream.Send(Nal(5, 30), true), 0) << "it may lack its first slices";
  EXPECT_EQ(stream.Send(Nal(5, 30), true), 1);
}

TEST(H264RTPProcesser, FramesOfDelimitedStreamsArriveOnlyWithTheSwitch) {
  const auto clip = test::EncodeClip({.frames = 24, .gop = 8, .delimiters = true, .noise = true});
  ASSERT_EQ(test::SplitAnnexB(clip[0].data)[0][0] & 0x1F, 9) << "case lost its point";
  for (const bool ignore : {false, true}) {
    for (const bool aggregate : {false, true}) {
      H264RTPProcesser processer;
      processer.SetIgnoreDelimiters(ignore);
      FrameCollector collector(processer);
      RtpPacketizer rtp;
      for (const auto& frame : clip) {
        collector.Feed(rtp.H264(frame.data, aggregate));
      }
      if (!ignore) {
        // In an aggregate the delimiter is taken as a part of the frame; each inter picture's,
        // which comes with nothing to be aggregated with, is one too.
        EXPECT_EQ(collector.frames.size(), aggregate ? 16u : 0u);
        continue;
      }
      ASSERT_EQ(collector.frames.size(), 16u) << aggregate;
      for (std::size_t i = 0; i < 16; ++i) {
        auto units = test::SplitAnnexB(clip[i + 8].data);
        std::vector<Data> expected;
        for (std::size_t unit = 1; unit < units.size(); ++unit) {
          expected.emplace_back(units[unit].begin(), units[unit].end());
        }
        ASSERT_EQ(collector.frames[i], AnnexB(expected)) << i;
        ASSERT_EQ(collector.types[i], clip[i + 8].key ? 1 : 2) << i;
      }
      EXPECT_EQ(processer.GetTotalLostCount(), 0u);
    }
  }
}

TEST(H264RTPProcesser, IgnoredUnitsLeaveTheBoundaryToThePacketBehindThem) {
  const Data idle[] = {kDelimiter, Nal(12, 50), StapA({kDelimiter}),
                       StapA({kDelimiter, Nal(12, 9)}), FuA(12, true, false, 40)};
  for (const Data& payload : idle) {
    // In front of a key frame, once and twice, with the marker and without.
    for (const bool marker : {false, true}) {
      for (const int count : {1, 2}) {
        H264Stream stream(true);
        for (int i = 0; i < count; ++i) {
          EXPECT_EQ(stream.Send(payload, marker), 0);
        }
        stream.Send(FuA(5, true, false, 30));
        EXPECT_EQ(stream.Send(FuA(5, false, true, 30), true), 1);
        EXPECT_EQ(stream.collector.frames.back(), AnnexB({kH264Sps, kH264Pps, Nal(5, 61)}));
        EXPECT_EQ(stream.collector.types.back(), 1);
      }
    }
    // In front of an inter picture: the boundary passes to it, and it is refused.
    H264Stream stream(true);
    stream.Send(payload);
    EXPECT_EQ(stream.Send(Nal(1, 30), false), 0);
    EXPECT_EQ(stream.Send(Nal(5, 30), true), 0) << "the boundary was used up";
    EXPECT_EQ(stream.Send(Nal(5, 30), true), 1);

    // At the end and in the midst of a frame.
    stream.Send(kH264Sps);
    stream.Send(payload);
    EXPECT_EQ(stream.Send(Nal(5, 30), false), 0);
    EXPECT_EQ(stream.Send(payload, true), 1) << "the marker ends the frame";
    EXPECT_EQ(stream.collector.frames.back(), AnnexB({kH264Sps, Nal(5, 30)}));
    EXPECT_EQ(stream.Send(payload, true), 0) << "nothing to deliver";
    EXPECT_EQ(stream.Send(Nal(1, 30), true), 1) << "and nothing lost";
  }
}

TEST(H264RTPProcesser, DelimiterInAnAggregateNeverLeadsTheFrame) {
  H264Stream stream(true);
  stream.Send(StapA({kDelimiter, kH264Sps, kH264Pps, Nal(12, 9)}));
  EXPECT_EQ(stream.Send(FuA(5, true, true, 30)), 1);
  EXPECT_EQ(stream.collector.frames.back(), AnnexB({kH264Sps, kH264Pps, Nal(5, 31)}));
  EXPECT_EQ(stream.collector.types.back(), 1);
  // A fragmented filler's end bit is the filler's end, not the frame's.
  stream.Send(Nal(1, 30));
  EXPECT_EQ(stream.Send(FuA(12, true, true, 30), false), 0);
  EXPECT_EQ(stream.Send(Nal(1, 30), true), 1);
  // Lost delimiters count like any packet.
  stream.rtp.Skip(1);
  stream.Send(kDelimiter);
  EXPECT_EQ(stream.processer.GetTotalLostCount(), 1u);
  EXPECT_EQ(stream.Send(Nal(5, 30), true), 0) << "no frame end was seen since the gap";
}
