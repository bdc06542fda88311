#include "cms/streaming/internal/parameter_set_store.h"

#include <algorithm>

#include "cms/live/media/internal/bit_reader.h"
#include "cms/streaming/internal/annex_b.h"
#include "cms/streaming/internal/h265_parameter_sets.h"
#include "cms/streaming/internal/picture_size.h"

namespace cms {

ParameterSetStore::Set ParameterSetStore::Read(Bytes unit) const {
  Set set{NalType(codec_, unit[0]), 0, {}, {unit.begin(), unit.end()}};
  const Bytes body = unit.subspan(NalHeaderSize(codec_));
  GolombReader bits(body);
  if (codec_ == NalCodec::kH264) {
    if (set.type == kH264Sps) {
      bits.Skip(24);  // profile_idc, constraint flags, level_idc
      set.size = FullH264Size(body).value_or(PictureSize());
    }
    set.number = bits.Unsigned();
  } else if (set.type == kH265Sps) {
    const H265Sps sps = ReadH265Sps(body).value_or(H265Sps());
    set.number = sps.number;
    set.size = sps.size;
  } else {
    set.number = set.type == kH265Vps ? bits.Read(4) : bits.Unsigned();
  }
  return set;
}

void ParameterSetStore::Keep(Bytes unit) {
  if (unit.size() <= NalHeaderSize(codec_) ||
      NalPlaceOf(codec_, NalType(codec_, unit[0])) != NalPlace::kParameterSet) {
    return;
  }
  auto known = std::find_if(sets_.begin(), sets_.end(), [&](const Set& set) {
    return std::equal(set.unit.begin(), set.unit.end(), unit.begin(), unit.end());
  });
  if (known == sets_.end()) [[unlikely]] {
    Set set = Read(unit);
    const auto place = std::find_if(sets_.begin(), sets_.end(), [&](const Set& other) {
      return other.type > set.type || (other.type == set.type && other.number == set.number);
    });
    const bool replaces =
        place != sets_.end() && place->type == set.type && place->number == set.number;
    const std::size_t others = bytes_ - (replaces ? kNalStartCode.size() + place->unit.size() : 0);
    if (kNalStartCode.size() + unit.size() > kMostBytes - others) {
      return;
    }
    bytes_ = others + kNalStartCode.size() + unit.size();
    if (replaces) {
      *place = std::move(set);
      known = place;
    } else {
      known = sets_.insert(place, std::move(set));
    }
  }
  if (known->size != PictureSize()) {
    size_ = known->size;
  }
}

bool ParameterSetStore::Complete() const {
  unsigned kinds = 0;
  for (const Set& set : sets_) {
    kinds |= 1u << (set.type - FirstSetType(codec_));
  }
  return kinds == (1u << SetKinds(codec_)) - 1;
}

void ParameterSetStore::WriteAnnexB(std::span<std::uint8_t> to) const {
  auto at = to.begin();
  for (const Set& set : sets_) {
    at = std::copy(kNalStartCode.begin(), kNalStartCode.end(), at);
    at = std::copy(set.unit.begin(), set.unit.end(), at);
  }
}

}  // namespace cms
