// The NAL units in an RTP payload: H.264 (RFC 6184) and H.265 (RFC 7798).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "cms/streaming/internal/nal_unit.h"
#include "cms/streaming/stream_probes.h"

namespace cms {

// How a stream is packetized.
struct NalFormat {
  NalCodec codec = NalCodec::kH264;
  // H.265: each unit is preceded by its decoding order number (sprop-max-don-diff above 0). The
  // numbers are passed over: units are taken to be sent in decoding order.
  bool orderNumbers = false;
};

// A NAL unit, or a fragment of one.
struct NalPiece {
  std::array<std::uint8_t, 2> header{};  // the unit's own; H.264 has the first byte only
  Bytes data;                            // what follows it
  bool begins = true;
  bool ends = true;
};

enum class NalFault : std::uint8_t {
  kNone,
  kMalformed,    // a length or a header reaches beyond the payload
  kUnsupported,  // a structure that is not received (H.264's interleaved mode; H.265's PACI)
};

namespace nal_payload {

// RFC 6184, table 1; RFC 7798, 4.4.
enum Structure : unsigned {
  kStapA = 24,
  kFuA = 28,
  kAggregation = 48,
  kFragmentation = 49,
};
inline constexpr std::size_t kSizeField = 2;
inline constexpr std::size_t kOrderNumber = 2;      // DONL
inline constexpr std::size_t kOrderDifference = 1;  // DOND, of the second unit of a packet on
// The FU header.
inline constexpr std::uint8_t kFuStart = 0x80;
inline constexpr std::uint8_t kFuEnd = 0x40;

inline NalPiece WholeUnit(NalCodec codec, Bytes unit) {
  NalPiece piece;
  piece.header = {unit[0], codec == NalCodec::kH264 ? std::uint8_t{0} : unit[1]};
  piece.data = unit.subspan(NalHeaderSize(codec));
  return piece;
}

// RFC 6184, 5.7.1; RFC 7798, 4.4.2. Sizes of 0 are passed over.
template <typename Visit>
NalFault VisitAggregate(const NalFormat& format, Bytes rest, Visit& visit) {
  std::size_t orderField = format.orderNumbers ? kOrderNumber : 0;
  while (!rest.empty()) {
    if (rest.size() < orderField + kSizeField) {
      return NalFault::kMalformed;
    }
    rest = rest.subspan(orderField);
    const auto size = static_cast<std::size_t>(rest[0] << 8 | rest[1]);
    rest = rest.subspan(kSizeField);
    if (size > rest.size() || (size > 0 && size < NalHeaderSize(format.codec))) {
      return NalFault::kMalformed;
    }
    if (size > 0) {
      visit(WholeUnit(format.codec, rest.first(size)));
    }
    rest = rest.subspan(size);
    orderField = format.orderNumbers ? kOrderDifference : 0;
  }
  return NalFault::kNone;
}

// RFC 6184, 5.8; RFC 7798, 4.4.3.
template <typename Visit>
NalFault VisitFragment(const NalFormat& format, Bytes payload, Visit& visit) {
  const std::size_t headerSize = NalHeaderSize(format.codec);
  if (payload.size() < headerSize + 1) {
    return NalFault::kMalformed;
  }
  const std::uint8_t fuHeader = payload[headerSize];
  NalPiece piece;
  piece.begins = (fuHeader & kFuStart) != 0;
  piece.ends = (fuHeader & kFuEnd) != 0;
  if (format.codec == NalCodec::kH264) {
    piece.header[0] = static_cast<std::uint8_t>((payload[0] & 0xE0) | (fuHeader & 0x1F));
  } else {
    piece.header[0] = static_cast<std::uint8_t>((payload[0] & 0x81) | (fuHeader & 0x3F) << 1);
    piece.header[1] = payload[1];
  }
  piece.data = payload.subspan(headerSize + 1);
  if (piece.begins && format.orderNumbers) {
    if (piece.data.size() < kOrderNumber) {
      return NalFault::kMalformed;
    }
    piece.data = piece.data.subspan(kOrderNumber);
  }
  visit(piece);
  return NalFault::kNone;
}

}  // namespace nal_payload

// Calls visit(piece) for each piece of a payload in order; up to the first fault. The pieces point
// into the payload.
template <typename Visit>
NalFault ForEachNalPiece(const NalFormat& format, Bytes payload, Visit&& visit) {
  using namespace nal_payload;
  const std::size_t headerSize = NalHeaderSize(format.codec);
  if (payload.size() < headerSize) {
    return NalFault::kMalformed;
  }
  const bool h264 = format.codec == NalCodec::kH264;
  const unsigned type = NalType(format.codec, payload[0]);
  if (type == (h264 ? kFuA : kFragmentation)) [[likely]] {
    return VisitFragment(format, payload, visit);
  }
  if (type == (h264 ? kStapA : kAggregation)) {
    return VisitAggregate(format, payload.subspan(headerSize), visit);
  }
  if (h264 ? type == 0 || type > kStapA : type > kFragmentation) {
    return NalFault::kUnsupported;
  }
  NalPiece piece = WholeUnit(format.codec, payload);
  if (format.orderNumbers) {
    if (piece.data.size() < kOrderNumber) {
      return NalFault::kMalformed;
    }
    piece.data = piece.data.subspan(kOrderNumber);
  }
  visit(piece);
  return NalFault::kNone;
}

}  // namespace cms
