// Assemblers of access units behind a reader of RTP headers, with what came out of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "cms/streaming/internal/access_unit_assembler.h"
#include "cms/streaming/internal/jpeg_assembler.h"
#include "cms/streaming/internal/rtp_packet.h"
#include "tests/support/rtp_packetizer.h"

namespace test {

inline constexpr std::size_t kRtpHeader = 12;

template <typename Assembler>
class ReceiverOf : private cms::AccessUnitSink {
 public:
  struct Unit {
    std::vector<std::uint8_t> data;
    std::uint32_t timestamp = 0;
    bool key = false;
    bool decodable = false;
    std::optional<cms::PictureSize> newSize;
  };

  template <typename Stream>
  ReceiverOf(const Stream& stream, std::size_t most) : assembler(*this, stream, most) {}

  // In a block of its exact size, so that a read past its end is caught.
  void Feed(const RtpPacket& packet) {
    RtpPacket copy(packet);
    copy.shrink_to_fit();
    const cms::RtpPacket header(copy);
    const std::uint16_t sequence = header.Sequence();
    const bool gap = !last_ || sequence != static_cast<std::uint16_t>(*last_ + 1);
    last_ = sequence;
    assembler.Take({header.Payload(), header.Timestamp(), (copy[1] & 0x80) != 0, gap});
  }
  void Feed(const RtpPackets& packets) {
    for (const RtpPacket& packet : packets) {
      Feed(packet);
    }
  }

  std::vector<std::vector<std::uint8_t>> Decodable() const {
    std::vector<std::vector<std::uint8_t>> result;
    for (const Unit& unit : units) {
      if (unit.decodable) {
        result.push_back(unit.data);
      }
    }
    return result;
  }

  std::vector<Unit> units;
  Assembler assembler;

 private:
  // The promises: writable in front, zeros behind, and neither disturbs a unit.
  void OnAccessUnit(const cms::AccessUnit& unit) override {
    std::memset(unit.data.data() - cms::UnitBuffer::kFrontRoom, 0xEE, cms::UnitBuffer::kFrontRoom);
    const std::uint8_t* const end = unit.data.data() + unit.data.size();
    const bool zeroed = std::all_of(end, end + cms::UnitBuffer::kTailRoom,
                                    [](std::uint8_t byte) { return byte == 0; });
    units.push_back({{}, unit.timestamp, unit.key, unit.decodable, unit.newSize});
    if (zeroed) {
      units.back().data.assign(unit.data.begin(), unit.data.end());
    }
  }

  std::optional<std::uint16_t> last_;
};

class UnitReceiver final : public ReceiverOf<cms::AccessUnitAssembler> {
 public:
  explicit UnitReceiver(const cms::NalFormat& format, std::size_t most = cms::kMostUnitBytes)
      : ReceiverOf(format, most) {}
};

class JpegReceiver final : public ReceiverOf<cms::JpegAssembler> {
 public:
  explicit JpegReceiver(cms::PictureSize described = {}, std::size_t most = cms::kMostUnitBytes)
      : ReceiverOf(described, most) {}
};

}  // namespace test
