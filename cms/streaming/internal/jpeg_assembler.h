// JpegAssembler: RTP payloads of JPEG (RFC 2435) to whole pictures.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cms/streaming/internal/access_unit.h"
#include "cms/streaming/internal/unit_buffer.h"
#include "cms/streaming/mjpeg_header.h"

namespace cms {

// Each picture is a key picture. It begins with the fragment at offset 0 and ends with the marker,
// at once; of a sender that sets none, where the time stamp changes. One with a fragment missing is
// dropped. Each picture has the tables and the restart interval that came with it, and of pictures
// over 2,040 pixels, which the payload header cannot tell, the size of the session description. A
// sender that leaves the JPEG's own header in the payload is followed.
//
// Threads: the receiving thread; the counters may be read from any.
class JpegAssembler {
 public:
  // `described`: the session description's size, 0 x 0 when it has none. `sink` outlives the
  // object.
  JpegAssembler(AccessUnitSink& sink, PictureSize described,
                std::size_t mostBytes = kMostUnitBytes);
  JpegAssembler(const JpegAssembler&) = delete;
  JpegAssembler& operator=(const JpegAssembler&) = delete;

  void Take(const MediaPacket& packet);

  // Pictures that were dropped, and those among them that were too large or for which there was no
  // memory.
  std::uint32_t DroppedUnits() const { return dropped_.load(std::memory_order_relaxed); }
  std::uint32_t OversizeUnits() const { return oversize_.load(std::memory_order_relaxed); }

 private:
  bool Begin(Bytes payload);
  void Add(Bytes payload);
  void End();
  PictureSize SizeOf(Bytes payload) const;

  AccessUnitSink& sink_;
  const PictureSize described_;
  UnitBuffer buffer_;

  bool open_ = false;
  bool damaged_ = false;
  bool hasHeader_ = false;  // of its own, in the payload
  std::uint32_t timestamp_ = 0;
  PictureSize size_;
  PictureSize toldSize_;
  tMJPEGJFIFHeaderParam header_{};

  std::atomic<std::uint32_t> dropped_{0};
  std::atomic<std::uint32_t> oversize_{0};
};

}  // namespace cms
