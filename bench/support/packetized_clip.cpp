#include <algorithm>
#include <array>

#include "bench/support/stream_server.h"
#include "cms/runtime/digest.h"

namespace bench {
namespace {

constexpr std::array<std::uint8_t, 3> kStart = {0, 0, 1};
constexpr unsigned kSps = 7;
constexpr unsigned kPps = 8;
constexpr std::uint8_t kFuA = 28;

using Bytes = std::span<const std::uint8_t>;

// The NAL units of an Annex B picture.
std::vector<Bytes> Units(Bytes picture) {
  std::vector<Bytes> units;
  auto start = std::search(picture.begin(), picture.end(), kStart.begin(), kStart.end());
  while (start != picture.end()) {
    const auto begin = start + kStart.size();
    start = std::search(begin, picture.end(), kStart.begin(), kStart.end());
    auto end = start;
    while (end != begin && *(end - 1) == 0) {
      --end;  // the first zero of a four-byte start code
    }
    units.emplace_back(begin, end);
  }
  return units;
}

}  // namespace

PacketizedClip::PacketizedClip(const std::vector<test::EncodedFrame>& frames) {
  std::string sps;
  std::string pps;
  for (const test::EncodedFrame& frame : frames) {
    std::vector<Packet>& packets = frames_.emplace_back();
    for (const Bytes unit : Units(frame.data)) {
      AddUnit(unit, packets);
      const std::string text(unit.begin(), unit.end());
      sps = (unit[0] & 0x1F) == kSps ? text : sps;
      pps = (unit[0] & 0x1F) == kPps ? text : pps;
    }
    packets.back().marker = true;
  }
  parameter_sets_ = cms::Base64(sps) + "," + cms::Base64(pps);
}

void PacketizedClip::AddUnit(Bytes unit, std::vector<Packet>& frame) {
  const auto add = [&](std::size_t header, Bytes data) {
    frame.push_back({bytes_.size() - header, header + data.size()});
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  };
  if (unit.size() <= kPayload) {
    add(0, unit);
    return;
  }
  constexpr std::size_t kHeader = 2;
  const std::uint8_t nal = unit[0];
  Bytes rest = unit.subspan(1);
  for (bool first = true; !rest.empty(); first = false) {
    const Bytes part = rest.first(std::min(rest.size(), kPayload - kHeader));
    rest = rest.subspan(part.size());
    bytes_.push_back(static_cast<std::uint8_t>((nal & 0xE0) | kFuA));
    bytes_.push_back(
        static_cast<std::uint8_t>((nal & 0x1F) | (first ? 0x80 : 0) | (rest.empty() ? 0x40 : 0)));
    add(kHeader, part);
  }
}

std::size_t PacketizedClip::PacketCount() const {
  std::size_t count = 0;
  for (const auto& frame : frames_) {
    count += frame.size();
  }
  return count;
}

}  // namespace bench
