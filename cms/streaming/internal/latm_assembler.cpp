#include "cms/streaming/internal/latm_assembler.h"

#include <algorithm>

namespace cms {

LatmAssembler::LatmAssembler(const AacPayload& payload)
    : latm_(payload.latm.value_or(LatmPayload{})),
      unitTicks_(payload.unitTicks),
      mux_(latm_.mux),
      pieces_(std::make_unique<std::uint8_t[]>(kMostElementBytes)) {}

void LatmAssembler::Take(const MediaPacket& packet) {
  units_ = 0;
  next_ = 0;
  if (packet.gap || (come_ > 0 && packet.timestamp != timestamp_)) {
    refused_ += come_ > 0 ? 1 : 0;
    come_ = 0;
    skipping_ = false;
    beginSeen_ = !packet.gap;
  }
  if (packet.payload.empty()) {
    return;
  }
  timestamp_ = packet.timestamp;
  const bool alone = come_ == 0 && packet.marker;
  const bool kept = !skipping_ && (alone || Keep(packet.payload));
  if (kept && !packet.marker) {
    return;
  }
  // Behind a gap an end of an element may look like one.
  if (!kept || (packet.marker &&
                !ReadElement(alone ? packet.payload : Bytes(pieces_.get(), come_), !beginSeen_))) {
    refused_ += skipping_ ? 0 : 1;
    units_ = 0;
  }
  skipping_ = !packet.marker;
  beginSeen_ = beginSeen_ || packet.marker;
  come_ = 0;
}

bool LatmAssembler::Keep(Bytes piece) {
  if (piece.size() > kMostElementBytes - come_) {
    return false;
  }
  std::copy(piece.begin(), piece.end(), pieces_.get() + come_);
  come_ += piece.size();
  return true;
}

// An AudioMuxElement (1.7.3.1). `whole`: it has to end where the bytes do.
bool LatmAssembler::ReadElement(Bytes element, bool whole) {
  element_ = element;
  std::size_t at = 0;
  if (latm_.inBand) {
    BitReader bits(element);
    if (!bits.Flag()) {
      const auto mux = ReadStreamMuxConfig(bits, false);
      if (!mux) {
        return false;
      }
      mux_ = mux;
    }
    at = bits.Position();
  }
  if (!mux_) {
    return false;
  }
  const std::size_t end = element.size() * 8;
  for (; units_ < mux_->units; ++units_) {
    Place& place = places_[units_];
    place.bytes = mux_->constantBytes;
    for (std::uint8_t told = 0xFF; mux_->constantBytes == 0 && told == 0xFF; at += 8) {
      if (at + 8 > end) {
        return false;
      }
      told = ByteAt(at);
      place.bytes += told;
    }
    place.bit = at;
    at += place.bytes * 8;
    if (at > end) {
      return false;
    }
  }
  const std::uint64_t last = at + mux_->otherBits;
  return !whole || (last <= end && end - last < 8);
}

std::uint8_t LatmAssembler::ByteAt(std::size_t bit) const {
  const std::size_t at = bit / 8;
  const unsigned high = element_[at];
  const unsigned low = at + 1 < element_.size() ? element_[at + 1] : 0u;
  return static_cast<std::uint8_t>((high << 8 | low) >> (8 - bit % 8));
}

std::optional<AacUnit> LatmAssembler::Next() {
  while (next_ < units_) {
    const Place place = places_[next_];
    const std::uint32_t timestamp = timestamp_ + static_cast<std::uint32_t>(next_) * unitTicks_;
    ++next_;
    if (place.bytes == 0 || place.bytes > AacBlock::kMostUnitBytes) {
      continue;
    }
    std::uint8_t* const unit = block_.Unit();
    for (std::size_t i = 0; i < place.bytes; ++i) {
      unit[i] = ByteAt(place.bit + i * 8);
    }
    return AacUnit{block_.Finish(mux_->format, place.bytes), timestamp};
  }
  return std::nullopt;
}

}  // namespace cms
