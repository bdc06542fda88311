// RtpGate decides which packets on a stream's way in are the stream's own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "cms/streaming/internal/rtp_packet.h"

namespace cms {

// Strangers' datagrams, RTCP on the wrong port and packets of another payload type would cost a
// depacketizer its frame, and a datagram that the network doubled everything up to the next key
// frame: none of them comes through, and none is counted anywhere.
//
// The payload type is the described one. Some cameras send under another one than they describe:
// until the first described packet the first other type counts as the stream's. A packet of yet
// another type of the same sender that continues its sequence (comfort noise, a maker's private
// data) comes through without its payload, so that no packet seems to be missing.
//
// Threads: the receiving thread; Start before the first packet.
class RtpGate {
 public:
  // `payloadType` above 127: none is described. `dropDoubled`: over UDP.
  void Start(unsigned payloadType, bool dropDoubled);

  // What the depacketizer is to be given: the packet itself, a packet of the gate's own with
  // padding only (valid until the next call), or nothing.
  std::span<const std::uint8_t> Admit(std::span<const std::uint8_t> bytes);

 private:
  static constexpr std::size_t kFixedHeader = RtpPacket::kFixedHeader;
  static constexpr unsigned kNoType = 0xFF;

  // One of the latest packets, kept at its number's place.
  struct Seen {
    std::uint32_t timestamp = 0;
    std::uint32_t source = 0;
    std::uint16_t sequence = 0;
    std::uint16_t length = 0;  // 0: none yet
    bool operator==(const Seen&) const = default;
  };
  static constexpr std::size_t kWindow = 128;

  bool IsOwnType(unsigned type);
  std::span<const std::uint8_t> PlaceOf(std::span<const std::uint8_t> packet);

  unsigned described_ = kNoType;
  unsigned other_ = kNoType;  // the type that stands in for the described one
  bool describedSeen_ = false;
  bool dropDoubled_ = false;
  bool any_ = false;
  std::uint32_t source_ = 0;
  std::uint16_t last_ = 0;  // sequence number
  std::array<Seen, kWindow> seen_{};
  std::array<std::uint8_t, kFixedHeader + 1> place_{};
};

}  // namespace cms
