// AacAssembler: RTP packets of AAC (RFC 3640) to access units.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/streaming/internal/aac_block.h"
#include "cms/streaming/internal/aac_payload.h"
#include "cms/streaming/internal/access_unit.h"

namespace cms {

// Give it a packet with Take, then ask Next until there is no more: a packet has several access
// units, or a piece of one. A damaged packet, and a unit of which a piece is missing, is left out;
// sound needs no other unit to begin with. Nothing is allocated after construction. Not locked: the
// receiving thread's.
class AacAssembler {
 public:
  static constexpr std::size_t kMostUnits = 64;  // of a packet

  explicit AacAssembler(const AacPayload& payload);

  // The packet's bytes have to live until Next gives nothing.
  void Take(const MediaPacket& packet);
  std::optional<AacUnit> Next();

  // Packets of which nothing was used: damaged, interleaved, or with units of over 8,184 bytes.
  std::uint64_t RefusedPackets() const { return refused_; }

 private:
  bool ReadPacket(Bytes payload);
  bool ReadUnitHeaders(Bytes headers, std::size_t bitCount);
  bool SkipAuxiliary();
  bool TakePiece(const MediaPacket& packet);

  const AacPayload payload_;
  AacBlock block_;

  // Of the packet in hand.
  std::array<std::uint32_t, kMostUnits> sizes_{};
  std::size_t units_ = 0;
  std::size_t next_ = 0;
  Bytes data_;  // of the units that were not given out yet
  std::uint32_t timestamp_ = 0;

  // Of a unit in pieces, one a packet.
  std::size_t come_ = 0;  // bytes; 0: none is begun
  std::size_t whole_ = 0;
  std::uint32_t pieceTimestamp_ = 0;
  bool wholeReady_ = false;

  std::uint64_t refused_ = 0;
};

}  // namespace cms
