// AccessUnitAssembler: RTP payloads of H.264 and H.265 to whole pictures.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "cms/streaming/internal/access_unit.h"
#include "cms/streaming/internal/nal_payload.h"
#include "cms/streaming/internal/parameter_set_store.h"
#include "cms/streaming/internal/unit_buffer.h"
#include "cms/streaming/stream_probes.h"

namespace cms {

// Takes what senders of today send: several slices a picture, delimiters, SEI and parameter sets in
// any legal order, key pictures of megabytes. A unit ends with the marker, at once; of a sender
// that sets none, where the time stamp changes. What has no slice yet is no unit: senders that mark
// each packet are followed, and those that mark each slice from their second picture on.
//
// Packets lost inside a unit drop it. The packets in front of the first one that is seen count as
// lost too, but a unit whose first byte came (a delimiter, parameter set or SEI, or the picture's
// first slice) is whole whatever was lost before: the first complete key picture is delivered.
//
// Parameter sets are kept, those of the session description and those in band, and put in front of
// key pictures that come without.
//
// Threads: the receiving thread; the counters may be read from any.
class AccessUnitAssembler {
 public:
  // `sink` outlives the object.
  AccessUnitAssembler(AccessUnitSink& sink, const NalFormat& format,
                      std::size_t mostBytes = kMostUnitBytes);
  AccessUnitAssembler(const AccessUnitAssembler&) = delete;
  AccessUnitAssembler& operator=(const AccessUnitAssembler&) = delete;

  // One set of the session description, a NAL unit without start code. Before the first packet.
  void KeepParameterSet(Bytes unit) { sets_.Keep(unit); }

  void Take(const MediaPacket& packet);

  // Units with pictures that were dropped, and those among them that were too large or for which
  // there was no memory.
  std::uint32_t DroppedUnits() const { return dropped_.load(std::memory_order_relaxed); }
  std::uint32_t OversizeUnits() const { return oversize_.load(std::memory_order_relaxed); }
  // Packets in a structure that is not received (see NalFault).
  std::uint32_t UnsupportedPackets() const { return unsupported_.load(std::memory_order_relaxed); }

 private:
  // The unit in progress.
  struct Unit {
    std::uint32_t timestamp = 0;
    bool open = false;
    bool any = false;          // a NAL unit was looked at
    bool startUnsure = false;  // packets are missing in front of it
    bool beginsWhole = false;  // its first NAL unit is one that an access unit can begin with
    bool damaged = false;
    bool oversize = false;
    bool picture = false;        // a slice has begun
    bool recoveryPoint = false;  // here, and
    bool refreshBegins = false;  // some pictures ahead
    bool intraOnly = true;
    unsigned pictureType = 0;         // NAL type of the first slice
    bool hasSps = false;              // in band
    unsigned setKinds = 0;            // in band: a bit for each type
    std::size_t delimiterLength = 0;  // of a delimiter at its very front, with the start code
    std::size_t metadataAt = 0;       // in the buffer
    std::size_t metadataLength = 0;
  };

  void AddPiece(const NalPiece& piece);
  void BeginNal(const NalPiece& piece, unsigned type);
  void EndNal();
  void Append(Bytes data);
  void Look(Bytes units);
  void LookAtUnit(Bytes unit, bool atFront);
  void LookAtSei(Bytes unit);
  void LookAtSlice(unsigned type, Bytes body);
  void EndUnit();
  bool IsWhole(bool key) const;
  bool IsKey() const;
  bool NeedsSets() const;
  AccessUnit Finish(bool key);

  AccessUnitSink& sink_;
  const NalFormat format_;
  UnitBuffer buffer_;
  ParameterSetStore sets_;

  Unit unit_;
  bool inNal_ = false;    // a fragmented NAL unit is in progress
  bool skipNal_ = false;  // which adds nothing
  unsigned nalType_ = 0;
  std::size_t nalStart_ = 0;  // in the buffer, of its start code

  bool gap_ = true;          // in front of the packet at hand
  bool chainWhole_ = false;  // since a key picture nothing was lost
  bool leadingLost_ =
      false;  // pictures that refer to one in front of the key picture are not decodable
  bool keysBringSets_ = false;
  bool marksSlices_ = false;  // the sender sets the marker on each slice: it ends nothing
  std::optional<std::uint32_t> marked_;  // time stamp of the last unit, when a marker ended it
  PictureSize toldSize_;

  std::atomic<std::uint32_t> dropped_{0};
  std::atomic<std::uint32_t> oversize_{0};
  std::atomic<std::uint32_t> unsupported_{0};
};

}  // namespace cms
