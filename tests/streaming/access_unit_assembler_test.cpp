#include "cms/streaming/internal/access_unit_assembler.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/streaming/unit_receiver.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/ffmpeg_sender.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using cms::NalCodec;
using test::Bytes;
using test::RtpPacket;
using test::RtpPackets;
using test::UnitReceiver;
using Block = std::vector<std::uint8_t>;

constexpr int kGop = 5;

bool IsSlice(NalCodec codec, Bytes unit) {
  const unsigned type = cms::NalType(codec, unit[0]);
  return cms::NalPlaceOf(codec, type) == cms::NalPlace::kPicture;
}

bool IsSet(NalCodec codec, Bytes unit) {
  const unsigned type = cms::NalType(codec, unit[0]);
  return cms::NalPlaceOf(codec, type) == cms::NalPlace::kParameterSet;
}

// What an encoder made, with 4-byte start codes.
struct UnitClip {
  NalCodec codec;
  std::vector<Block> pictures;
  std::vector<bool> keys;
};

UnitClip Encode(NalCodec codec, test::ClipSpec spec) {
  spec.codec = codec == NalCodec::kH264 ? test::ClipCodec::kH264 : test::ClipCodec::kH265;
  spec.gop = kGop;
  UnitClip clip{codec, {}, {}};
  for (const auto& frame : test::EncodeClip(spec)) {
    clip.pictures.push_back(test::WithLongStartCodes(frame.data));
    clip.keys.push_back(frame.key);
  }
  return clip;
}

const UnitClip& FourSlices(NalCodec codec) {
  const auto encode = [](NalCodec which) {
    return Encode(which, {.frames = 15, .slices = 4, .delimiters = true, .noise = true});
  };
  static const UnitClip h264 = encode(NalCodec::kH264);
  static const UnitClip h265 = encode(NalCodec::kH265);
  return codec == NalCodec::kH264 ? h264 : h265;
}

RtpPackets Send(test::RtpPacketizer& rtp, NalCodec codec, Bytes picture, bool aggregate = false) {
  return codec == NalCodec::kH264 ? rtp.H264(picture, aggregate) : rtp.H265(picture, aggregate);
}

RtpPackets Send(const UnitClip& clip, bool aggregate = false) {
  test::RtpPacketizer rtp(65500);
  RtpPackets packets;
  for (const Block& picture : clip.pictures) {
    for (auto& packet : Send(rtp, clip.codec, picture, aggregate)) {
      packets.push_back(std::move(packet));
    }
  }
  return packets;
}

void SetMarker(RtpPacket& packet, bool marker) {
  packet[1] = static_cast<std::uint8_t>((packet[1] & 0x7F) | (marker ? 0x80 : 0));
}

bool HasMarker(const RtpPacket& packet) {
  return (packet[1] & 0x80) != 0;
}

// Whether the packet ends a NAL unit.
bool EndsUnit(NalCodec codec, const RtpPacket& packet) {
  bool ends = false;
  cms::ForEachNalPiece({codec}, Bytes(packet).subspan(test::kRtpHeader),
                       [&](const cms::NalPiece& piece) { ends = piece.ends; });
  return ends;
}

class AccessUnitOf : public testing::TestWithParam<NalCodec> {};
INSTANTIATE_TEST_SUITE_P(, AccessUnitOf, testing::Values(NalCodec::kH264, NalCodec::kH265),
                         [](const auto& suite) {
                           return suite.param == NalCodec::kH264 ? "H264" : "H265";
                         });

TEST_P(AccessUnitOf, EachLostPacketCostsItsPictureAndWhatDependsOnIt) {
  const UnitClip& clip = FourSlices(GetParam());
  const RtpPackets packets = Send(clip, true);
  std::size_t picture = 0;
  for (std::size_t lost = 0; lost < packets.size(); ++lost) {
    SCOPED_TRACE(lost);
    UnitReceiver receiver({clip.codec});
    for (std::size_t i = 0; i < packets.size(); ++i) {
      if (i != lost) {
        receiver.Feed(packets[i]);
      }
    }
    const std::size_t resumes = (picture / kGop + 1) * kGop;
    std::vector<Block> expected(clip.pictures.begin(),
                                clip.pictures.begin() + static_cast<std::ptrdiff_t>(picture));
    if (resumes < clip.pictures.size()) {
      expected.insert(expected.end(), clip.pictures.begin() + static_cast<std::ptrdiff_t>(resumes),
                      clip.pictures.end());
    }
    ASSERT_EQ(receiver.Decodable(), expected);
    picture += HasMarker(packets[lost]) ? 1 : 0;
  }
}

TEST_P(AccessUnitOf, ReceptionStartsWithTheFirstKeyPictureWhoseStartIsSeen) {
  const UnitClip& clip = FourSlices(GetParam());
  const RtpPackets packets = Send(clip);
  std::size_t picture = 0;
  for (std::size_t first = 0; first < packets.size(); ++first) {
    UnitReceiver receiver({clip.codec});
    receiver.Feed(RtpPackets(packets.begin() + static_cast<std::ptrdiff_t>(first), packets.end()));
    const bool atStart = first == 0 || HasMarker(packets[first - 1]);
    const std::size_t begins = (picture + (atStart ? 0 : 1) + kGop - 1) / kGop * kGop;
    const auto whole = receiver.Decodable();
    // Behind the delimiter a key picture's parameter sets begin it as well.
    ASSERT_TRUE(whole.size() == clip.pictures.size() - begins ||
                (picture % kGop == 0 && whole.size() == clip.pictures.size() - picture))
        << first;
    if (!whole.empty()) {
      ASSERT_EQ(whole.back(), clip.pictures.back());
      const auto& key = *std::find_if(receiver.units.begin(), receiver.units.end(),
                                      [](const auto& unit) { return unit.decodable; });
      EXPECT_TRUE(key.key);
      EXPECT_EQ(key.newSize, (cms::PictureSize{320, 240}));
    }
    picture += HasMarker(packets[first]) ? 1 : 0;
  }
}

TEST_P(AccessUnitOf, MarkersMayBeMissingOrStandOnEachPacketOrOnEachSlice) {
  const UnitClip& clip = FourSlices(GetParam());
  RtpPackets none = Send(clip);
  RtpPackets ofUnits = none;
  for (std::size_t i = 0; i < none.size(); ++i) {
    SetMarker(none[i], false);
    SetMarker(ofUnits[i], EndsUnit(clip.codec, ofUnits[i]));
  }
  const std::vector<Block> allButLast(clip.pictures.begin(), clip.pictures.end() - 1);
  UnitReceiver withoutMarkers({clip.codec});
  withoutMarkers.Feed(none);
  EXPECT_EQ(withoutMarkers.Decodable(), allButLast) << "the last one has no end yet";

  // The first picture comes torn and teaches how the sender marks; what depends on it is not whole.
  UnitReceiver markedSlices({clip.codec});
  markedSlices.Feed(ofUnits);
  std::vector<Block> whole = markedSlices.Decodable();
  ASSERT_FALSE(whole.empty());
  EXPECT_LT(whole[0].size(), clip.pictures[0].size());
  whole.erase(whole.begin());
  EXPECT_EQ(whole, (std::vector(allButLast.begin() + kGop, allButLast.end())));

  const UnitClip single = Encode(clip.codec, {.frames = 10, .delimiters = true});
  RtpPackets all = Send(single);
  for (RtpPacket& packet : all) {
    SetMarker(packet, EndsUnit(clip.codec, packet));
  }
  UnitReceiver markedUnits({clip.codec});
  markedUnits.Feed(all);
  EXPECT_EQ(markedUnits.Decodable(), single.pictures) << "what has no slice is no picture";
}

TEST_P(AccessUnitOf, ParameterSetsStandInFrontOfEachKeyPicture) {
  for (const bool delimiters : {false, true}) {
    const UnitClip clip = Encode(GetParam(), {.frames = 12, .delimiters = delimiters});
    // Announced only; sent once, with a time stamp of their own, in front of the first picture.
    for (const bool announced : {true, false}) {
      UnitReceiver receiver({clip.codec});
      test::RtpPacketizer rtp;
      std::vector<Bytes> sets;
      for (const Bytes unit : test::SplitAnnexB(clip.pictures[0])) {
        if (IsSet(clip.codec, unit)) {
          sets.push_back(unit);
        }
      }
      for (const Bytes set : sets) {
        if (announced) {
          receiver.assembler.KeepParameterSet(set);
        } else {
          receiver.Feed(rtp.Packet(set, true));
        }
      }
      std::vector<Block> expected;
      for (std::size_t i = 0; i < clip.pictures.size(); ++i) {
        Block stripped;
        for (const Bytes unit : test::SplitAnnexB(clip.pictures[i])) {
          if (!IsSet(clip.codec, unit)) {
            stripped.insert(stripped.end(), {0, 0, 0, 1});
            stripped.insert(stripped.end(), unit.begin(), unit.end());
          }
        }
        receiver.Feed(Send(rtp, clip.codec, stripped));
      }
      EXPECT_EQ(receiver.Decodable(), clip.pictures) << delimiters << announced;
    }
  }
}

TEST_P(AccessUnitOf, KeyPicturesOfMegabytesPassAndLargerOnesAreDropped) {
  const UnitClip& clip = FourSlices(GetParam());
  std::vector<Bytes> units = test::SplitAnnexB(clip.pictures[0]);
  Block slice(units.back().begin(), units.back().end());
  units.erase(std::find_if(units.begin(), units.end(),
                           [&](Bytes unit) { return IsSlice(clip.codec, unit); }),
              units.end());
  Block picture;
  for (const Bytes unit : units) {
    picture.insert(picture.end(), {0, 0, 0, 1});
    picture.insert(picture.end(), unit.begin(), unit.end());
  }
  picture.insert(picture.end(), {0, 0, 0, 1});
  slice.resize(3'000'000, 0x55);
  picture.insert(picture.end(), slice.begin(), slice.end());

  test::RtpPacketizer rtp;
  UnitReceiver receiver({clip.codec});
  receiver.Feed(Send(rtp, clip.codec, picture));
  ASSERT_EQ(receiver.units.size(), 1u);
  EXPECT_TRUE(receiver.units[0].key);
  EXPECT_TRUE(receiver.units[0].data == picture);

  UnitReceiver small({clip.codec}, picture.size() - 1);
  small.Feed(Send(rtp, clip.codec, picture));
  small.Feed(Send(rtp, clip.codec, clip.pictures[1]));
  small.Feed(Send(rtp, clip.codec, clip.pictures[kGop]));
  EXPECT_EQ(small.assembler.OversizeUnits(), 1u);
  EXPECT_EQ(small.Decodable(), std::vector<Block>{clip.pictures[kGop]});
}

TEST_P(AccessUnitOf, PicturesInFrontOfAnOpenGroupsKeyPictureNeedTheGroupBefore) {
  const UnitClip clip =
      Encode(GetParam(),
             {.frames = 20, .profile = test::ClipProfile::kHigh, .bframes = 2, .openGroups = true});
  const RtpPackets packets = Send(clip);
  UnitReceiver receiver({clip.codec});
  receiver.Feed(packets);
  EXPECT_EQ(receiver.Decodable(), clip.pictures);
  for (std::size_t i = 0; i < receiver.units.size(); ++i) {
    EXPECT_EQ(receiver.units[i].key, clip.keys[i]) << i;
  }
  if (clip.codec == NalCodec::kH265) {
    UnitReceiver late({clip.codec});
    late.Feed(RtpPackets(packets.begin() + 4, packets.end()));
    std::vector<Block> expected;
    std::size_t keys = 0;
    std::size_t leftOut = 0;
    for (std::size_t i = 1; i < clip.pictures.size(); ++i) {
      keys += clip.keys[i] ? 1 : 0;
      const Bytes slice = test::SplitAnnexB(clip.pictures[i]).back();
      const bool leads = keys == 1 && cms::IsRasl(cms::NalType(clip.codec, slice[0]));
      leftOut += leads ? 1 : 0;
      if (keys > 0 && !leads) {
        expected.push_back(clip.pictures[i]);
      }
    }
    EXPECT_EQ(late.Decodable(), expected);
    EXPECT_GT(leftOut, 0u);
  }
}

// A sender without key pictures but the first renews its picture piece by piece.
TEST_P(AccessUnitOf, ReceptionStartsWithAGradualRefreshToo) {
  const bool h264 = GetParam() == NalCodec::kH264;
  const UnitClip clip = Encode(GetParam(), {.frames = kGop});
  const Block recoveryPoint =
      h264 ? Block{6, 6, 2, 0x2C, 0x40, 0x80} : Block{0x4E, 1, 6, 2, 0x2C, 0x40, 0x80};
  UnitReceiver receiver({GetParam()});
  for (const Bytes unit : test::SplitAnnexB(clip.pictures[0])) {
    if (IsSet(GetParam(), unit)) {
      receiver.assembler.KeepParameterSet(unit);
    }
  }
  test::RtpPacketizer rtp;
  for (std::size_t i = 1; i < kGop; ++i) {
    auto units = test::SplitAnnexB(clip.pictures[i]);
    if (i == 2) {
      units.insert(units.begin(), recoveryPoint);
    }
    receiver.Feed(h264 ? rtp.H264Units(units) : rtp.H265Units(units, false, false));
  }
  ASSERT_EQ(receiver.units.size(), kGop - 1u);
  EXPECT_FALSE(receiver.units[0].decodable);
  EXPECT_TRUE(receiver.units[1].key && receiver.units[1].decodable);
  EXPECT_TRUE(!receiver.units[2].key && receiver.units[2].decodable);
}

TEST(AccessUnit, OrderNumbersArePassedOver) {
  const UnitClip& clip = FourSlices(NalCodec::kH265);
  for (const bool aggregate : {false, true}) {
    UnitReceiver receiver({NalCodec::kH265, true});
    test::RtpPacketizer rtp;
    for (const Block& picture : clip.pictures) {
      receiver.Feed(rtp.H265(picture, aggregate, true));
    }
    EXPECT_EQ(receiver.Decodable(), clip.pictures);
  }
}

TEST(AccessUnit, UnitsThatASenderGluedIntoOneAreLookedAtOneByOne) {
  const UnitClip& clip = FourSlices(NalCodec::kH264);
  UnitReceiver receiver({NalCodec::kH264});
  test::RtpPacketizer rtp;
  for (const Block& picture : clip.pictures) {
    const Bytes glued = Bytes(picture).subspan(4);
    receiver.Feed(rtp.H264Units({glued}));
  }
  EXPECT_EQ(receiver.Decodable(), clip.pictures);
  EXPECT_EQ(receiver.units[0].newSize, (cms::PictureSize{320, 240}));
}

TEST(AccessUnit, WhatIsNotReceivedIsCountedAndCostsItsPicture) {
  const UnitClip& clip = FourSlices(NalCodec::kH264);
  UnitReceiver receiver({NalCodec::kH264});
  test::RtpPacketizer rtp;
  receiver.Feed(rtp.H264(clip.pictures[0]));
  for (const int structure : {25, 26, 27, 29, 30}) {
    receiver.Feed(
        rtp.Packet(Block{static_cast<std::uint8_t>(structure), 0, 0, 0, 2, 0x41, 0x80}, false));
  }
  receiver.Feed(rtp.H264(clip.pictures[1]));
  receiver.Feed(rtp.H264(clip.pictures[2]));
  receiver.Feed(rtp.H264(clip.pictures[kGop]));
  EXPECT_EQ(receiver.assembler.UnsupportedPackets(), 5u);
  EXPECT_EQ(receiver.assembler.DroppedUnits(), 1u);
  EXPECT_EQ(receiver.Decodable(), (std::vector{clip.pictures[0], clip.pictures[kGop]}));
}

TEST(AccessUnit, PacketsWithoutPayloadOnlyKeepTheirPlace) {
  const UnitClip& clip = FourSlices(NalCodec::kH264);
  UnitReceiver receiver({NalCodec::kH264});
  std::uint16_t sequence = 1;
  for (RtpPacket packet : Send(clip)) {
    RtpPacket padding(packet.begin(), packet.begin() + test::kRtpHeader);
    padding[4] ^= 0xFF;  // with a time stamp of its own, as another stream of the sender has it
    SetMarker(padding, false);
    for (RtpPacket* const each : {&packet, &padding}) {
      (*each)[2] = static_cast<std::uint8_t>(sequence >> 8);
      (*each)[3] = static_cast<std::uint8_t>(sequence++);
      receiver.Feed(*each);
    }
  }
  EXPECT_EQ(receiver.Decodable(), clip.pictures);
}

}  // namespace
