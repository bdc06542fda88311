#include "cms/streaming/internal/latm_assembler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cms/streaming/internal/rtp_packet.h"
#include "tests/support/ffmpeg_sender.h"

namespace {

using Blob = std::vector<std::uint8_t>;

Blob LatmUnit(std::size_t size, unsigned seed) {
  Blob unit(size);
  for (std::size_t i = 0; i < size; ++i) {
    unit[i] = static_cast<std::uint8_t>(seed + i * 7 + i / 256);
  }
  return unit;
}

// Numbers as bits, most significant first.
class Bits {
 public:
  Bits& Put(unsigned count, std::uint32_t value) {
    while (count-- > 0) {
      text_ += (value >> count & 1) != 0 ? '1' : '0';
    }
    return *this;
  }
  Bits& Put(const Blob& bytes) {
    for (const std::uint8_t byte : bytes) {
      Put(8, byte);
    }
    return *this;
  }
  // A length as PayloadLengthInfo has it.
  Bits& PutLength(std::size_t length) {
    for (; length >= 255; length -= 255) {
      Put(8, 255);
    }
    return Put(8, static_cast<std::uint32_t>(length));
  }
  Blob Bytes() const {
    Blob bytes((text_.size() + 7) / 8);
    for (std::size_t i = 0; i < text_.size(); ++i) {
      bytes[i / 8] |= static_cast<std::uint8_t>((text_[i] == '1' ? 0x80 : 0) >> i % 8);
    }
    return bytes;
  }

 private:
  std::string text_;
};

// A StreamMuxConfig of AAC-LC, 16 kHz, mono. Version 1 fills its AudioSpecificConfig up.
Bits& PutMux(Bits& bits, bool version1, unsigned units, std::uint32_t otherBits = 0) {
  bits.Put(1, version1);
  if (version1) {
    bits.Put(1, 0).Put(2, 0).Put(8, 99);
  }
  bits.Put(1, 1).Put(6, units - 1).Put(4, 0).Put(3, 0);
  if (version1) {
    bits.Put(2, 0).Put(8, 19);
  }
  bits.Put(16, 0x1408).Put(version1 ? 3 : 0, 5).Put(3, 0).Put(8, 255);
  bits.Put(1, otherBits != 0);
  if (otherBits != 0) {
    version1 ? bits.Put(2, 0).Put(8, otherBits) : bits.Put(1, 0).Put(8, otherBits);
  }
  return bits.Put(1, 0);
}

std::optional<cms::AacPayload> LatmPayload(const std::string& parameters,
                                           std::uint32_t clockRate = 16'000) {
  std::string problem;
  auto payload = cms::ReadLatmPayload(parameters, clockRate, 1, &problem);
  EXPECT_EQ(payload.has_value(), problem.empty()) << parameters;
  return payload;
}

struct HeardLatm {
  Blob unit;
  std::uint32_t timestamp;
  bool operator==(const HeardLatm&) const = default;
};

std::vector<HeardLatm> Take(cms::LatmAssembler& assembler, const cms::MediaPacket& packet) {
  std::vector<HeardLatm> heard;
  assembler.Take(packet);
  while (const auto unit = assembler.Next()) {
    const auto frame = cms::ReadAdtsFrame(unit->block);
    EXPECT_TRUE(frame);
    if (frame) {
      EXPECT_NE(frame->format.SampleRate(), 0u);
      heard.push_back({{frame->unit.begin(), frame->unit.end()}, unit->timestamp});
    }
  }
  return heard;
}

// Another sender's packets and description, and what is left where each packet in turn is lost.
TEST(LatmAssembler, GivesWhatFfmpegSendsAndLeavesOutOnlyWhatWasLost) {
  std::vector<Blob> units;
  for (const std::size_t size : {200, 3, 255, 4000, 510, 1469, 1470, 1471, 700, 2940}) {
    units.push_back(LatmUnit(size, static_cast<unsigned>(units.size())));
  }
  std::string description;
  const auto packets = test::MuxRtp(AV_CODEC_ID_AAC, units, "latm", {0x15, 0x88}, &description);
  ASSERT_NE(description.find("MP4A-LATM/8000"), std::string::npos) << description;
  const std::size_t fmtp = description.find("a=fmtp:");
  const std::size_t from = description.find(' ', fmtp) + 1;
  const auto payload =
      LatmPayload(description.substr(from, description.find("\r", from) - from), 8000);
  ASSERT_TRUE(payload);
  EXPECT_EQ(payload->format, (cms::AdtsFormat{2, 11, 1}));
  for (std::size_t lost = 0; lost <= packets.size(); ++lost) {
    cms::LatmAssembler assembler(*payload);
    std::vector<Blob> expected = units;
    std::vector<Blob> heard;
    std::size_t unit = 0;
    for (std::size_t i = 0; i < packets.size(); ++i) {
      const cms::RtpPacket packet(packets[i]);
      if (i == lost) {
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(unit));
      } else {
        for (const HeardLatm& each : Take(assembler, {packet.Payload(), packet.Timestamp(),
                                                      packet.Marker(), i == 0 || i == lost + 1})) {
          heard.push_back(each.unit);
        }
      }
      unit += packet.Marker() ? 1 : 0;
    }
    EXPECT_EQ(heard, expected) << "without packet " << lost;
  }
}

TEST(LatmAssembler, ConfigurationsInTheElementsAndSeveralUnitsOfOne) {
  const auto payload = LatmPayload("object=2");  // cpresent is 1 where it is not told
  ASSERT_TRUE(payload);
  for (const bool version1 : {false, true}) {
    cms::LatmAssembler assembler(*payload);
    const std::vector<Blob> units = {LatmUnit(300, 1), LatmUnit(255, 2), LatmUnit(9, 3)};
    Bits begin;
    PutMux(begin.Put(1, 0), version1, 3, 11);
    Bits going;
    going.Put(1, 1);
    for (Bits* const each : {&begin, &going}) {
      for (const Blob& unit : units) {
        each->PutLength(unit.size()).Put(unit);
      }
      each->Put(11, 0);
    }
    const Blob first = begin.Bytes();
    const Blob second = going.Bytes();
    EXPECT_TRUE(Take(assembler, {second, 0, true, true}).empty()) << "nothing is known yet";
    const std::vector<HeardLatm> expected = {{units[0], 500}, {units[1], 1524}, {units[2], 2548}};
    EXPECT_EQ(Take(assembler, {first, 500, true, false}), expected);
    EXPECT_EQ(Take(assembler, {second, 500, true, false}), expected);
    EXPECT_EQ(assembler.RefusedElements(), 1u);
    // Cut anywhere it is left out, and in three pieces it is whole.
    for (std::size_t size = 1; size + 2 < second.size(); ++size) {
      EXPECT_TRUE(Take(assembler, {std::span(second).first(size), 9, true, false}).empty());
    }
    const std::span<const std::uint8_t> whole(second);
    EXPECT_TRUE(Take(assembler, {whole.first(100), 500, false, false}).empty());
    EXPECT_TRUE(Take(assembler, {whole.subspan(100, 1), 500, false, false}).empty());
    EXPECT_EQ(Take(assembler, {whole.subspan(101), 500, true, false}), expected);
    // An end whose begin was lost does not look like an element.
    EXPECT_TRUE(Take(assembler, {whole.subspan(101), 500, true, true}).empty());
    EXPECT_EQ(Take(assembler, {second, 500, true, false}), expected);
  }
}

TEST(LatmAssembler, DescriptionsOfSoundThatIsNotUnderstoodAreRefused) {
  const auto hex = [](const Blob& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
      text += "0123456789abcdef"[byte >> 4];
      text += "0123456789abcdef"[byte & 15];
    }
    return text;
  };
  Bits good;
  const Blob config = PutMux(good, false, 1).Bytes();
  EXPECT_TRUE(LatmPayload("cpresent=0;config=" + hex(config)));
  EXPECT_FALSE(LatmPayload("cpresent=0"));
  EXPECT_FALSE(LatmPayload("cpresent=1", 90'000));
  constexpr std::size_t kBehindSound = 4;  // bytes; GStreamer's payloader ends there
  for (std::size_t size = 0; size < config.size(); ++size) {
    const Blob cut(config.begin(), config.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(LatmPayload("cpresent=0;config=" + hex(cut)).has_value(), size == kBehindSound);
  }
  EXPECT_TRUE(LatmPayload("cpresent=0;config=40002810adca00")) << "with an encoder's word on SBR";
  for (const auto& [bit, what] : {std::pair(9, "programs"),
                                  {14, "layers"},
                                  {1, "time framing"},
                                  {16, "object type"},
                                  {31, "frame length type"}}) {
    Blob other = config;
    other[static_cast<std::size_t>(bit) / 8] ^= static_cast<std::uint8_t>(0x80 >> bit % 8);
    EXPECT_FALSE(LatmPayload("cpresent=0;config=" + hex(other))) << what;
  }
}

}  // namespace
