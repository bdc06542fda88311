#include "cms/streaming/internal/access_unit_assembler.h"

#include <algorithm>
#include <utility>

#include "cms/live/media/internal/bit_reader.h"
#include "cms/streaming/internal/annex_b.h"

namespace cms {
namespace {

// Written by the receiving thread alone.
void CountOne(std::atomic<std::uint32_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Whether an SEI unit, from the byte behind its NAL header, has a recovery point (ITU-T H.264,
// D.1.8; H.265, D.2.8), and whether that is at its own picture: the count of pictures up to it is 0
// in both codings, a set bit.
std::optional<bool> RecoversHere(Bytes messages) {
  constexpr unsigned kRecoveryPoint = 6;
  while (const auto message = ParseSeiMessage(messages)) {
    const Bytes payload = messages.subspan(static_cast<std::size_t>(message->payloadPos));
    if (message->type == kRecoveryPoint && !payload.empty()) {
      return (payload[0] & 0x80) != 0;
    }
    if (message->size >= payload.size()) {
      break;
    }
    messages = payload.subspan(message->size);
  }
  return std::nullopt;
}

}  // namespace

AccessUnitAssembler::AccessUnitAssembler(AccessUnitSink& sink, const NalFormat& format,
                                         std::size_t mostBytes)
    : sink_(sink), format_(format), buffer_(mostBytes), sets_(format.codec) {}

void AccessUnitAssembler::Take(const MediaPacket& packet) {
  if (packet.gap) [[unlikely]] {
    gap_ = true;
  }
  if (packet.payload.empty()) {
    return;
  }
  if (unit_.open && packet.timestamp != unit_.timestamp) {
    unit_.damaged = unit_.damaged || gap_;
    EndUnit();
  }
  if (gap_) [[unlikely]] {
    chainWhole_ = false;
    inNal_ = false;
    unit_.damaged = unit_.open;
  }
  if (!unit_.open) {
    unit_ = Unit();
    unit_.open = true;
    unit_.startUnsure = gap_;
    unit_.timestamp = packet.timestamp;
  }
  gap_ = false;
  const NalFault fault =
      ForEachNalPiece(format_, packet.payload, [this](const NalPiece& piece) { AddPiece(piece); });
  if (fault != NalFault::kNone) [[unlikely]] {
    unit_.damaged = true;
    if (fault == NalFault::kUnsupported) {
      CountOne(unsupported_);
    }
  }
  if (packet.marker && unit_.picture && !marksSlices_) {
    marked_ = unit_.timestamp;
    EndUnit();
  }
}

void AccessUnitAssembler::AddPiece(const NalPiece& piece) {
  const unsigned type = NalType(format_.codec, piece.header[0]);
  if (piece.begins) {
    BeginNal(piece, type);
  } else if (!inNal_ || type != nalType_) [[unlikely]] {
    unit_.damaged = true;  // its beginning is missing
    inNal_ = false;
    return;
  }
  if (!skipNal_) {
    Append(piece.data);
  }
  if (piece.ends) {
    EndNal();
  }
}

void AccessUnitAssembler::BeginNal(const NalPiece& piece, unsigned type) {
  EndNal();  // senders forget the end bit
  const NalPlace place = NalPlaceOf(format_.codec, type);
  inNal_ = true;
  nalType_ = type;
  skipNal_ = place == NalPlace::kBehind && !unit_.picture;
  if (skipNal_) {
    return;
  }
  nalStart_ = buffer_.Size();
  Append(kNalStartCode);
  Append(Bytes(piece.header).first(NalHeaderSize(format_.codec)));
  if (place == NalPlace::kPicture) {
    LookAtSlice(type, piece.data);
  }
}

void AccessUnitAssembler::EndNal() {
  if (!std::exchange(inNal_, false) || skipNal_ || unit_.oversize ||
      NalPlaceOf(format_.codec, nalType_) == NalPlace::kPicture) {
    return;
  }
  Look(Bytes(buffer_.Content()).subspan(nalStart_ + kNalStartCode.size()));
}

void AccessUnitAssembler::Append(Bytes data) {
  if (!unit_.oversize && !buffer_.Append(data)) [[unlikely]] {
    unit_.oversize = true;
    unit_.damaged = true;
    buffer_.Clear();
  }
}

// A unit that is no slice; some senders put several into one, with start codes in between.
void AccessUnitAssembler::Look(Bytes units) {
  bool atFront = nalStart_ == 0;
  while (!units.empty()) {
    const std::size_t next = EndOfStartCode(units, 0);
    Bytes unit = units.first(next < units.size() ? next - kShortStartCode : next);
    while (!unit.empty() && unit.back() == 0) {
      unit = unit.first(unit.size() - 1);  // of a longer start code
    }
    if (unit.size() > NalHeaderSize(format_.codec)) {
      LookAtUnit(unit, std::exchange(atFront, false));
    }
    units = units.subspan(next);
  }
}

void AccessUnitAssembler::LookAtUnit(Bytes unit, bool atFront) {
  const unsigned type = NalType(format_.codec, unit[0]);
  const Bytes body = unit.subspan(NalHeaderSize(format_.codec));
  const NalPlace place = NalPlaceOf(format_.codec, type);
  if (place == NalPlace::kPicture) {
    LookAtSlice(type, body);
    return;
  }
  if (!std::exchange(unit_.any, true)) {
    unit_.beginsWhole = true;
  }
  if (place == NalPlace::kParameterSet) {
    sets_.Keep(unit);
    unit_.setKinds |= 1u << (type - FirstSetType(format_.codec));
    unit_.hasSps = unit_.hasSps || IsSps(format_.codec, type);
  } else if (IsDelimiterUnit(format_.codec, type)) {
    unit_.delimiterLength = atFront ? kNalStartCode.size() + unit.size() : 0;
  } else if (IsSei(format_.codec, type)) {
    LookAtSei(unit);
  }
}

void AccessUnitAssembler::LookAtSei(Bytes unit) {
  if (const auto here = RecoversHere(unit.subspan(NalHeaderSize(format_.codec)))) {
    (*here ? unit_.recoveryPoint : unit_.refreshBegins) = true;
  }
  if (unit.size() <= AccessUnit::kMostMetadata) {
    unit_.metadataAt = static_cast<std::size_t>(unit.data() - buffer_.Content().data());
    unit_.metadataLength = unit.size();
  }
}

void AccessUnitAssembler::LookAtSlice(unsigned type, Bytes body) {
  bool first = false;  // of its picture
  if (format_.codec == NalCodec::kH264) {
    constexpr std::size_t kBothNumbers = 16;  // bytes, more than they can take
    constexpr std::uint32_t kTypes = 5;       // larger numbers say that all slices are of the type
    constexpr std::uint32_t kIntra = 2;
    constexpr std::uint32_t kSwitchingIntra = 4;
    GolombReader bits(body.first(std::min(body.size(), kBothNumbers)));
    first = bits.Unsigned() == 0 && bits.Ok();  // first_mb_in_slice
    const std::uint32_t kind = bits.Unsigned() % kTypes;
    unit_.intraOnly = unit_.intraOnly && bits.Ok() && (kind == kIntra || kind == kSwitchingIntra);
  } else {
    first = !body.empty() && (body[0] & 0x80) != 0;  // first_slice_segment_in_pic_flag
  }
  if (!std::exchange(unit_.any, true)) {
    unit_.beginsWhole = first;
    if (!first && !unit_.startUnsure && marked_ == unit_.timestamp) {
      marksSlices_ = true;  // the picture that a marker ended goes on
      unit_.damaged = true;
    }
  }
  if (!std::exchange(unit_.picture, true)) {
    unit_.pictureType = type;
  }
}

bool AccessUnitAssembler::IsKey() const {
  if (unit_.refreshBegins) {
    return true;
  }
  if (format_.codec == NalCodec::kH264) {
    return unit_.pictureType == kH264IdrSlice || (unit_.recoveryPoint && unit_.intraOnly);
  }
  return IsIrap(unit_.pictureType);
}

// Of a sender that puts its sets in front of each key picture, one without has lost them.
bool AccessUnitAssembler::IsWhole(bool key) const {
  return !unit_.damaged &&
         (!unit_.startUnsure || (unit_.beginsWhole && (!key || unit_.hasSps || !keysBringSets_)));
}

bool AccessUnitAssembler::NeedsSets() const {
  return unit_.setKinds != (1u << SetKinds(format_.codec)) - 1;
}

void AccessUnitAssembler::EndUnit() {
  EndNal();
  unit_.open = false;
  if (unit_.picture) {
    const bool key = IsKey();
    if (IsWhole(key)) [[likely]] {
      sink_.OnAccessUnit(Finish(key));
    } else {
      CountOne(dropped_);
      if (unit_.oversize) {
        CountOne(oversize_);
      }
      chainWhole_ = false;
    }
  }
  buffer_.Clear();
}

AccessUnit AccessUnitAssembler::Finish(bool key) {
  AccessUnit unit;
  unit.timestamp = unit_.timestamp;
  unit.key = key && sets_.Complete();
  if (key) {
    keysBringSets_ = unit_.hasSps;
    if (NeedsSets() && sets_.Complete()) {
      sets_.WriteAnnexB(buffer_.Insert(unit_.delimiterLength, sets_.AnnexBSize()));
      unit_.metadataAt += sets_.AnnexBSize();
    }
  }
  const bool h265 = format_.codec == NalCodec::kH265;
  if (unit.key) {
    const bool isBla = IsIrap(unit_.pictureType) && unit_.pictureType <= kH265LastBla;
    leadingLost_ = h265 && (!chainWhole_ || isBla);
    chainWhole_ = true;
  }
  unit.decodable = chainWhole_ && !(h265 && leadingLost_ && IsRasl(unit_.pictureType));
  if (unit.decodable && sets_.Size() != toldSize_) {
    toldSize_ = sets_.Size();
    unit.newSize = toldSize_;
  }
  buffer_.ZeroTail();
  unit.data = buffer_.Content();
  unit.metadata = Bytes(unit.data).subspan(unit_.metadataAt, unit_.metadataLength);
  return unit;
}

}  // namespace cms
