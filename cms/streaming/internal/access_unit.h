// AccessUnit: one picture as it is received, and the packets that it is put together from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/streaming/stream_probes.h"

namespace cms {

// One RTP packet, as the reader of its header leaves it.
struct MediaPacket {
  Bytes payload;  // without padding; empty: the packet only keeps its place in the sequence
  std::uint32_t timestamp = 0;
  bool marker = false;
  bool gap = false;  // packets in front of this one are missing; also of the first one of a sender
};

// Bytes of a unit, unless its receiver is told otherwise.
inline constexpr std::size_t kMostUnitBytes = 8 * 1024 * 1024;

// One picture with all that belongs to it: H.264 and H.265 as Annex B with 4-byte start codes,
// MJPEG as a JPEG file.
struct AccessUnit {
  // Valid during the call only. UnitBuffer::kFrontRoom bytes in front of it are the callee's to
  // write, UnitBuffer::kTailRoom bytes behind it are zero.
  std::span<std::uint8_t> data;
  std::uint32_t timestamp = 0;
  // Decoding can begin here: an IDR (H.264) or IRAP (H.265) picture, an H.264 picture of intra
  // slices at a recovery point, the beginning of a gradual refresh (a recovery point some pictures
  // ahead, of senders that have no other), any JPEG. The parameter sets that it needs are in front
  // of its slices.
  bool key = false;
  // Nothing that this picture may refer to is missing: a key picture has come, and all packets
  // since then. What else is done with pictures that are not decodable is the callee's choice.
  bool decodable = false;
  // The size in pixels: set with the first decodable picture, and when it changed.
  std::optional<PictureSize> newSize;
  // The last SEI unit of kMostMetadata bytes or fewer in it, with its NAL header, without start
  // code.
  Bytes metadata;
  static constexpr std::size_t kMostMetadata = 256;
};

class AccessUnitSink {
 public:
  // On the receiving thread, inside Take. Must not call the one that puts the units together.
  virtual void OnAccessUnit(const AccessUnit& unit) = 0;

 protected:
  ~AccessUnitSink() = default;
};

}  // namespace cms
