#include "cms/streaming/internal/aac_assembler.h"

#include <algorithm>
#include <numeric>

#include "cms/live/media/internal/bit_reader.h"

namespace cms {
namespace {

constexpr std::size_t kLengthOfHeaders = 2;  // bytes

constexpr std::size_t BytesOfBits(std::size_t bits) {
  return (bits + 7) / 8;
}

}  // namespace

AacAssembler::AacAssembler(const AacPayload& payload) : payload_(payload) {}

void AacAssembler::Take(const MediaPacket& packet) {
  units_ = 0;
  next_ = 0;
  wholeReady_ = false;
  come_ = packet.gap ? 0 : come_;
  if (packet.payload.empty()) {
    return;
  }
  timestamp_ = packet.timestamp;
  const bool read = ReadPacket(packet.payload);
  const std::size_t announced = std::accumulate(
      sizes_.begin(), sizes_.begin() + static_cast<std::ptrdiff_t>(units_), std::size_t{0});
  if (read && announced <= data_.size() && announced > 0) [[likely]] {
    come_ = 0;
    return;
  }
  if (!read || units_ != 1 || !TakePiece(packet)) {
    ++refused_;
    come_ = 0;
  }
  units_ = 0;
}

// The sizes of the units to sizes_, their bytes to data_ (RFC 3640, 3.2).
bool AacAssembler::ReadPacket(Bytes payload) {
  data_ = payload;
  if (!payload_.HasUnitHeaders()) {
    for (std::size_t left = payload.size(); left > 0 && units_ < kMostUnits; ++units_) {
      const std::size_t size = std::min<std::size_t>(payload_.constantSize, left);
      sizes_[units_] = static_cast<std::uint32_t>(size);
      left -= size;
    }
    return SkipAuxiliary();
  }
  if (payload.size() < kLengthOfHeaders) {
    return false;
  }
  const std::size_t bitCount = std::size_t{payload[0]} << 8 | payload[1];
  data_ = payload.subspan(kLengthOfHeaders);
  const std::size_t byteCount = BytesOfBits(bitCount);
  if (byteCount > data_.size() || !ReadUnitHeaders(data_.first(byteCount), bitCount)) {
    return false;
  }
  data_ = data_.subspan(byteCount);
  return SkipAuxiliary();
}

bool AacAssembler::ReadUnitHeaders(Bytes headers, std::size_t bitCount) {
  BitReader bits(headers);
  for (std::size_t used = 0; used < bitCount; ++units_) {
    if (units_ == kMostUnits) {
      return false;
    }
    const unsigned indexLength = units_ == 0 ? payload_.indexLength : payload_.indexDeltaLength;
    const std::uint32_t told = bits.Read(payload_.sizeLength);
    sizes_[units_] = payload_.sizeLength != 0 ? told : payload_.constantSize;
    const std::uint32_t index = bits.Read(indexLength);
    used += payload_.sizeLength + indexLength;
    if (units_ > 0 && index != 0) {
      return false;  // interleaved: units between these come in other packets (3.2.3.2)
    }
    for (const unsigned length : {payload_.ctsDeltaLength, payload_.dtsDeltaLength}) {
      const unsigned delta = length != 0 && bits.Flag() ? length : 0;
      bits.Skip(delta);
      used += delta + (length != 0 ? 1 : 0);
    }
    const unsigned rest = payload_.streamStateLength + (payload_.randomAccess ? 1 : 0);
    bits.Skip(rest);
    used += rest;
    if (!bits.Ok()) {
      return false;
    }
  }
  return units_ > 0;
}

bool AacAssembler::SkipAuxiliary() {
  if (payload_.auxiliarySizeLength == 0) {
    return true;
  }
  BitReader bits(data_);
  const std::size_t size = bits.Read(payload_.auxiliarySizeLength);
  const std::size_t bytes = BytesOfBits(payload_.auxiliarySizeLength + size);
  if (!bits.Ok() || bytes > data_.size()) {
    return false;
  }
  data_ = data_.subspan(bytes);
  return true;
}

// A unit of several packets has each of them to itself; each tells the size of the whole unit, and
// the last one has the marker (RFC 3640, 3.2.3).
bool AacAssembler::TakePiece(const MediaPacket& packet) {
  if (come_ == 0 || packet.timestamp != pieceTimestamp_ || sizes_[0] != whole_) {
    come_ = 0;
    whole_ = sizes_[0];
    pieceTimestamp_ = packet.timestamp;
  }
  if (whole_ == 0 || whole_ > AacBlock::kMostUnitBytes || data_.size() > whole_ - come_) {
    return false;
  }
  std::copy(data_.begin(), data_.end(), block_.Unit() + come_);
  come_ += data_.size();
  wholeReady_ = come_ == whole_;
  return wholeReady_ || !packet.marker;
}

std::optional<AacUnit> AacAssembler::Next() {
  if (wholeReady_) {
    wholeReady_ = false;
    come_ = 0;
    return AacUnit{block_.Finish(payload_.format, whole_), pieceTimestamp_};
  }
  while (next_ < units_) {
    const Bytes unit = data_.first(sizes_[next_]);
    data_ = data_.subspan(unit.size());
    const std::uint32_t timestamp =
        timestamp_ + static_cast<std::uint32_t>(next_) * payload_.unitTicks;
    ++next_;
    if (unit.empty() || unit.size() > AacBlock::kMostUnitBytes) {
      continue;
    }
    std::copy(unit.begin(), unit.end(), block_.Unit());
    return AacUnit{block_.Finish(payload_.format, unit.size()), timestamp};
  }
  return std::nullopt;
}

}  // namespace cms
