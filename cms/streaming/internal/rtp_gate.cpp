#include "cms/streaming/internal/rtp_gate.h"

#include <algorithm>

namespace cms {
namespace {

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

std::span<const std::uint8_t> RtpGate::Admit(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kFixedHeader || RtpPacket(bytes).Version() != RtpPacket::kVersion) {
    return {};
  }
  const RtpPacket packet(bytes);
  const std::uint16_t sequence = packet.Sequence();
  const std::uint32_t source = packet.Source();
  if (!IsOwnType(packet.PayloadType())) {
    if (!any_ || source != source_ || sequence != static_cast<std::uint16_t>(last_ + 1)) {
      return {};
    }
    last_ = sequence;
    return PlaceOf(bytes);
  }
  if (dropDoubled_) {
    const Seen now{packet.Timestamp(), source, sequence,
                   static_cast<std::uint16_t>(std::min<std::size_t>(bytes.size(), 0xFFFF))};
    Seen& before = seen_[sequence % kWindow];
    if (before == now) {
      return {};
    }
    before = now;
  }
  any_ = true;
  source_ = source;
  last_ = sequence;
  return bytes;
}

}  // namespace cms
