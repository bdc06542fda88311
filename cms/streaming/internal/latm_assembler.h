// LatmAssembler: RTP packets of AAC in LATM (RFC 6416) to access units.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "cms/streaming/internal/aac_block.h"
#include "cms/streaming/internal/aac_payload.h"
#include "cms/streaming/internal/access_unit.h"

namespace cms {

// Give it a packet with Take, then ask Next until there is no more. An element, which has one or
// more access units, lies in one packet or in several, of which the last has the marker. One that
// is damaged, and one of which a piece is missing, is left out; sound needs no other unit to begin
// with. Nothing is allocated after construction. Not locked: the receiving thread's.
class LatmAssembler {
 public:
  static constexpr std::size_t kMostElementBytes = 32 * 1024;  // in several packets

  // `payload.latm` is set.
  explicit LatmAssembler(const AacPayload& payload);

  // The packet's bytes have to live until Next gives nothing.
  void Take(const MediaPacket& packet);
  std::optional<AacUnit> Next();

  // Elements of which nothing was used.
  std::uint64_t RefusedElements() const { return refused_; }

 private:
  // Where an access unit lies: not at a byte's begin, as a rule.
  struct Place {
    std::size_t bit = 0;
    std::size_t bytes = 0;
  };

  bool Keep(Bytes piece);
  bool ReadElement(Bytes element, bool whole);
  std::uint8_t ByteAt(std::size_t bit) const;

  const LatmPayload latm_;
  const std::uint32_t unitTicks_;
  std::optional<StreamMux> mux_;  // in force
  AacBlock block_;

  // Of the element in hand.
  Bytes element_;
  std::array<Place, StreamMux::kMostUnits> places_{};
  std::size_t units_ = 0;
  std::size_t next_ = 0;
  std::uint32_t timestamp_ = 0;

  // Of one in pieces.
  const std::unique_ptr<std::uint8_t[]> pieces_;
  std::size_t come_ = 0;    // bytes; 0: none is begun
  bool beginSeen_ = false;  // what comes next begins an element, or goes on with one
  bool skipping_ = false;   // up to the next marker

  std::uint64_t refused_ = 0;
};

}  // namespace cms
