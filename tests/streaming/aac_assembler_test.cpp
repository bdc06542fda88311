#include "cms/streaming/internal/aac_assembler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using Blob = std::vector<std::uint8_t>;
using testing::HasSubstr;

constexpr const char* kHbr =
    "profile-level-id=1;mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=1408";

Blob UnitOf(std::size_t size, std::uint8_t seed) {
  Blob unit(size);
  for (std::size_t i = 0; i < size; ++i) {
    unit[i] = static_cast<std::uint8_t>(seed + i * 7);
  }
  return unit;
}

cms::AacPayload PayloadOf(const std::string& parameters) {
  std::string problem;
  const auto payload = cms::ReadAacPayload(parameters, 16'000, 1, &problem);
  EXPECT_TRUE(payload) << problem;
  return payload.value_or(cms::AacPayload{});
}

// A packet of mode AAC-hbr: the sizes as its AU headers tell them, then the bytes.
Blob Packet(const std::vector<std::size_t>& sizes, const Blob& bytes, unsigned indexDelta = 0) {
  Blob packet = {0, static_cast<std::uint8_t>(16 * sizes.size())};
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const std::size_t header = sizes[i] << 3 | (i == 0 ? 0 : indexDelta);
    packet.push_back(static_cast<std::uint8_t>(header >> 8));
    packet.push_back(static_cast<std::uint8_t>(header));
  }
  packet.insert(packet.end(), bytes.begin(), bytes.end());
  return packet;
}

Blob Joined(const std::vector<Blob>& units) {
  Blob joined;
  for (const Blob& unit : units) {
    joined.insert(joined.end(), unit.begin(), unit.end());
  }
  return joined;
}

struct HeardAac {
  Blob unit;
  std::uint32_t timestamp;
  bool operator==(const HeardAac&) const = default;
};

class AacAssembler : public testing::Test {
 protected:
  std::vector<HeardAac> Take(const Blob& packet, std::uint32_t timestamp, bool marker = true,
                             bool gap = false) {
    std::vector<HeardAac> heard;
    assembler_.Take({packet, timestamp, marker, gap});
    while (const auto unit = assembler_.Next()) {
      const auto frame = cms::ReadAdtsFrame(unit->block);
      EXPECT_TRUE(frame);
      if (frame) {
        EXPECT_EQ(frame->format.SampleRate(), 16'000u);
        heard.push_back({{frame->unit.begin(), frame->unit.end()}, unit->timestamp});
      }
    }
    return heard;
  }

  cms::AacAssembler assembler_{PayloadOf(kHbr)};
};

TEST_F(AacAssembler, GivesEachAccessUnitOfAPacketAnAdtsHeaderAndATime) {
  const std::vector<Blob> units = {UnitOf(200, 1), UnitOf(3, 2), UnitOf(700, 3)};
  const std::vector<HeardAac> expected = {
      {units[0], 0xFFFFFC00}, {units[1], 0}, {units[2], 1024}};  // the time wraps between them
  EXPECT_EQ(Take(Packet({200, 3, 700}, Joined(units)), 0xFFFFFC00), expected);
  EXPECT_EQ(assembler_.RefusedPackets(), 0u);
}

TEST_F(AacAssembler, PutsAUnitOfSeveralPacketsTogetherUnlessAPieceIsMissing) {
  const Blob unit = UnitOf(3'000, 9);
  const auto piece = [&](std::size_t from, std::size_t to) {
    return Packet({3'000}, {unit.begin() + static_cast<std::ptrdiff_t>(from),
                            unit.begin() + static_cast<std::ptrdiff_t>(to)});
  };
  EXPECT_TRUE(Take(piece(0, 1'400), 500, false).empty());
  EXPECT_TRUE(Take(piece(1'400, 2'800), 500, false).empty());
  EXPECT_EQ(Take(piece(2'800, 3'000), 500), (std::vector<HeardAac>{{unit, 500}}));
  // Each piece lost in turn; the next unit is whole again.
  for (int lost = 0; lost < 3; ++lost) {
    const std::uint32_t timestamp = 2'000 + static_cast<std::uint32_t>(lost) * 1'024;
    const std::pair<std::size_t, std::size_t> pieces[] = {
        {0, 1'400}, {1'400, 2'800}, {2'800, 3'000}};
    for (int i = 0; i < 3; ++i) {
      if (i != lost) {
        EXPECT_TRUE(Take(piece(pieces[i].first, pieces[i].second), timestamp, i == 2, i == lost + 1)
                        .empty());
      }
    }
    EXPECT_EQ(Take(Packet({5}, UnitOf(5, 1)), timestamp + 512, true, lost == 2),
              (std::vector<HeardAac>{{UnitOf(5, 1), timestamp + 512}}));
  }
}

TEST_F(AacAssembler, LeavesOutWhatIsDamagedOrInterleaved) {
  const Blob unit = UnitOf(100, 5);
  Blob longHeaders = Packet({100}, unit);
  longHeaders[0] = 0xFF;
  const Blob wrong[] = {{},
                        {0},
                        {0, 16},
                        Packet({}, unit),
                        longHeaders,
                        Packet({60, 60}, unit),  // more than there is
                        Packet({50, 50}, unit, 1),
                        Packet({0}, {})};
  for (const Blob& packet : wrong) {
    EXPECT_TRUE(Take(packet, 0).empty()) << packet.size();
  }
  EXPECT_EQ(assembler_.RefusedPackets(), std::size(wrong) - 1) << "an empty one keeps its place";
  EXPECT_EQ(Take(Packet({100}, unit), 0).size(), 1u);
}

TEST(AacPayload, ReadsOptionalHeaderFieldsAndAuxiliaryData) {
  const cms::AacPayload payload = PayloadOf(
      "mode=generic; sizeLength=6; indexLength=2; indexDeltaLength=2; CTSDeltaLength=4;"
      "DTSDeltaLength=4; randomAccessIndication=1; streamStateIndication=3;"
      "auxiliaryDataSizeLength=8; config=1408; constantDuration=960");
  EXPECT_EQ(payload.unitTicks, 960u);
  cms::AacAssembler assembler(payload);
  // Twice: size 3, index 0, CTS flag and delta in the second only, no DTS, random access, state.
  // 000011 00 0 0 1 000 | 000011 00 1 1111 0 1 000
  const Blob packet = {
      0,    32,  // bits of the headers: 14 + 18
      0x0C, 0x20, 0x33, 0xE8 /* 0000 1100 | 0010 00 00 | 0011 00 11 | 11 1010 00 */,
      8,    0xAA,  // eight bits of auxiliary data
      1,    2,    3,    4,
      5,    6};
  assembler.Take({packet, 100, true, false});
  const auto first = assembler.Next();
  ASSERT_TRUE(first);
  EXPECT_EQ(Blob(first->block.begin() + 7, first->block.end()), (Blob{1, 2, 3}));
  const auto second = assembler.Next();
  ASSERT_TRUE(second);
  EXPECT_EQ(Blob(second->block.begin() + 7, second->block.end()), (Blob{4, 5, 6}));
  EXPECT_EQ(second->timestamp, 100u + 960u);
}

TEST(AacPayload, TellsTheModesAndSaysWhyItCannotBeReceived) {
  EXPECT_EQ(PayloadOf("MODE = aac-LBR ; Config=1408").sizeLength, 6u);
  EXPECT_EQ(PayloadOf("").sizeLength, 13u) << "no fmtp line: AAC-LC in the usual mode";
  cms::AacAssembler constant(PayloadOf("mode=generic;constantSize=4;config=1408"));
  const Blob units = UnitOf(8, 1);
  constant.Take({units, 0, true, false});
  EXPECT_TRUE(constant.Next() && constant.Next() && !constant.Next());

  const std::pair<const char*, const char*> refused[] = {
      {"mode=CELP-vbr;config=1408", "mode CELP-vbr is not understood"},
      {"mode=AAC-hbr;config=1408;maxDisplacement=4096", "interleaved"},
      {"mode=AAC-hbr;sizeLength=x;config=1408", "does not tell the sizes"},
      {"mode=AAC-hbr;sizeLength=99;config=1408", "does not tell the sizes"},
      {"mode=AAC-hbr;config=B8E85000", "config B8E85000 is an AAC of another kind"},
      {"mode=AAC-hbr;config=14xx", "another kind"},
  };
  for (const auto& [parameters, why] : refused) {
    std::string problem;
    EXPECT_FALSE(cms::ReadAacPayload(parameters, 16'000, 1, &problem)) << parameters;
    EXPECT_THAT(problem, HasSubstr(why));
  }
  std::string problem;
  EXPECT_FALSE(cms::ReadAacPayload("mode=AAC-hbr", 16'001, 1, &problem));
  EXPECT_THAT(problem, HasSubstr("does not tell its format"));
}

}  // namespace
