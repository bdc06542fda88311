// ParameterSetStore: the parameter sets of a stream that are in force.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "cms/streaming/internal/nal_unit.h"
#include "cms/streaming/stream_probes.h"

namespace cms {

// Keeps a copy of each set until another of its kind and number comes. Receiving the same sets
// again allocates nothing. Not locked.
class ParameterSetStore {
 public:
  static constexpr std::size_t kMostBytes = 4032;  // of all sets with their start codes

  explicit ParameterSetStore(NalCodec codec) : codec_(codec) {}

  // A whole NAL unit without start code. Other units are passed over, and so is a set for which
  // there is no room.
  void Keep(Bytes unit);

  // Whether there is a set of each kind that a decoder needs.
  bool Complete() const;
  // The size that the sequence parameter set received last announces; 0 x 0 while none is known.
  PictureSize Size() const { return size_; }

  // All sets as Annex B, each kind in front of those that refer to it.
  std::size_t AnnexBSize() const { return bytes_; }
  void WriteAnnexB(std::span<std::uint8_t> to) const;

 private:
  struct Set {
    unsigned type;
    std::uint32_t number;
    PictureSize size;  // of a sequence parameter set
    std::vector<std::uint8_t> unit;
  };

  Set Read(Bytes unit) const;

  const NalCodec codec_;
  PictureSize size_;
  std::size_t bytes_ = 0;
  std::vector<Set> sets_;  // by kind
};

}  // namespace cms
