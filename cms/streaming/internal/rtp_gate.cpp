#include "cms/streaming/internal/rtp_gate.h"

#include <algorithm>

namespace cms {
namespace {

std::uint16_t Read16(std::span<const std::uint8_t> packet, std::size_t at) {
  return static_cast<std::uint16_t>(packet[at] << 8 | packet[at + 1]);
}

std::uint32_t Read32(std::span<const std::uint8_t> packet, std::size_t at) {
  return static_cast<std::uint32_t>(Read16(packet, at)) << 16 | Read16(packet, at + 2);
}

// What RTCP's packet types look like where RTP has its payload type (RFC 3550, 12; RFC 5761, 4).
bool LooksLikeRtcp(unsigned type) {
  return type >= 72 && type <= 76;
}

}  // namespace

void RtpGate::Start(unsigned payloadType, bool dropDoubled) {
  *this = RtpGate();
  described_ = payloadType <= 127 ? payloadType : kNoType;
  dropDoubled_ = dropDoubled;
}

bool RtpGate::IsOwnType(unsigned type) {
  if (type == described_) {
    describedSeen_ = true;
    return true;
  }
  if (describedSeen_ || LooksLikeRtcp(type)) {
    return false;
  }
  if (other_ == kNoType) {
    other_ = type;
  }
  return type == other_;
}

std::span<const std::uint8_t> RtpGate::PlaceOf(std::span<const std::uint8_t> packet) {
  constexpr std::uint8_t kVersionAndPadding = 0xA0;
  std::copy_n(packet.begin(), kFixedHeader, place_.begin());
  place_[0] = kVersionAndPadding;
  place_[1] &= 0x7F;         // no marker
  place_[kFixedHeader] = 1;  // one byte of padding, this one
  return place_;
}

std::span<const std::uint8_t> RtpGate::Admit(std::span<const std::uint8_t> packet) {
  if (packet.size() < kFixedHeader || packet[0] >> 6 != 2) {
    return {};
  }
  const std::uint16_t sequence = Read16(packet, 2);
  const std::uint32_t source = Read32(packet, 8);
  if (!IsOwnType(packet[1] & 0x7Fu)) {
    if (!any_ || source != source_ || sequence != static_cast<std::uint16_t>(last_ + 1)) {
      return {};
    }
    last_ = sequence;
    return PlaceOf(packet);
  }
  if (dropDoubled_) {
    const Seen now{Read32(packet, 4), source, sequence,
                   static_cast<std::uint16_t>(std::min<std::size_t>(packet.size(), 0xFFFF))};
    Seen& before = seen_[sequence % kWindow];
    if (before == now) {
      return {};
    }
    before = now;
  }
  any_ = true;
  source_ = source;
  last_ = sequence;
  return packet;
}

}  // namespace cms
