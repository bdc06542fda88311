// Any pictures of several slices, packetized as RFC 6184 and RFC 7798 have it into packets of any
// size, come back byte for byte, one unit a picture, however the sender marks them.
#include <algorithm>
#include <utility>

#include "cms/streaming/internal/access_unit_assembler.h"
#include "fuzz/streaming/rtp_input.h"
#include "fuzz/support/check.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using Unit = std::vector<std::uint8_t>;

struct Sink final : cms::AccessUnitSink {
  void OnAccessUnit(const cms::AccessUnit& unit) override {
    units.emplace_back(unit.data.begin(), unit.data.end());
  }
  std::vector<Unit> units;
};

// Types of units in front of a picture's slices: of H.264 (no SEI, which could make it a key
// picture that gets parameter sets), then of H.265.
constexpr std::uint8_t kFront[2][4] = {{14, 7, 8, 9}, {39, 33, 34, 35}};
constexpr std::uint8_t kSlice = 1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t switches = fuzz::TakeByte(input);
  const std::size_t h265 = switches & 1;
  const bool aggregate = (switches & 2) != 0;
  const bool orderNumbers = h265 != 0 && (switches & 4) != 0;
  const bool markers = (switches & 8) != 0;
  test::RtpPacketizer rtp(1, 16 + std::size_t{fuzz::TakeByte(input)});

  Sink sink;
  cms::AccessUnitAssembler assembler(
      sink, {h265 != 0 ? cms::NalCodec::kH265 : cms::NalCodec::kH264, orderNumbers});
  std::vector<Unit> expected;
  bool first = true;
  std::uint32_t timestamp = 0;
  const auto send = [&](const std::vector<Unit>& units) {
    const std::vector<test::Bytes> views(units.begin(), units.end());
    for (const auto& packet : h265 != 0 ? rtp.H265Units(views, aggregate, orderNumbers)
                                        : rtp.H264Units(views, aggregate)) {
      const bool marker = markers && (packet[1] & 0x80) != 0;
      assembler.Take(
          {test::Bytes(packet).subspan(12), timestamp, marker, std::exchange(first, false)});
    }
    ++timestamp;
  };
  // What decides the type is set; no unit holds a start code or ends with zeros.
  const auto make = [&](std::uint8_t type) {
    Unit unit = fuzz::TakeBlock(input);
    unit.resize(std::min<std::size_t>(unit.size(), 2000) + 3);
    std::replace(unit.begin(), unit.end(), std::uint8_t{0}, std::uint8_t{3});
    unit[0] =
        h265 != 0 ? static_cast<std::uint8_t>(type << 1) : static_cast<std::uint8_t>(0x60 | type);
    return unit;
  };
  while (!input.empty() && expected.size() < 16) {
    const std::uint8_t shape = fuzz::TakeByte(input);
    std::vector<Unit> units;
    for (unsigned i = 0; i < (shape & 3u); ++i) {
      units.push_back(make(kFront[h265][shape >> 2 & 3]));
    }
    for (unsigned i = 0; i <= (shape >> 4 & 3u); ++i) {
      units.push_back(make(kSlice));
      units.back()[h265 + 1] = i == 0 ? 0x80 : 0x40;  // the picture's first slice, or not
    }
    expected.emplace_back();
    for (const Unit& unit : units) {
      expected.back().insert(expected.back().end(), {0, 0, 0, 1});
      expected.back().insert(expected.back().end(), unit.begin(), unit.end());
    }
    send(units);
  }
  send({make(kFront[h265][3]), make(kSlice)});
  sink.units.resize(std::min(sink.units.size(), expected.size()));
  CHECK(sink.units == expected);
  return 0;
}
