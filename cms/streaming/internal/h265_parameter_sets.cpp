#include "cms/streaming/internal/h265_parameter_sets.h"

#include <algorithm>
#include <array>

#include "cms/live/media/internal/bit_reader.h"

namespace cms {
namespace {

constexpr std::uint32_t kMostSubLayersMinus1 = 6;
constexpr std::uint32_t kMostSpsNumber = 15;
constexpr std::uint32_t kMostSide = 65536;  // pixels
constexpr std::uint32_t kMostDepthMinus8 = 8;
constexpr std::uint32_t kMostLog2OrderCountMinus4 = 12;
constexpr std::uint32_t kMostReferenceSets = 64;
constexpr std::uint32_t kMostReferences = 16;
constexpr std::uint32_t kMostLongTerm = 32;

// profile_tier_level with the general profile (7.3.3).
void ReadProfile(GolombReader& bits, std::uint32_t subLayersMinus1, H265Sps& set) {
  bits.Skip(3);  // general_profile_space, general_tier_flag
  set.profile = bits.Read(5);
  bits.Skip(32 + 4 + 43 + 1);  // compatibility and constraint flags
  set.level = bits.Read(8);
  std::array<bool, kMostSubLayersMinus1> hasProfile{};
  std::array<bool, kMostSubLayersMinus1> hasLevel{};
  for (std::uint32_t i = 0; i < subLayersMinus1; ++i) {
    hasProfile[i] = bits.Flag();
    hasLevel[i] = bits.Flag();
  }
  if (subLayersMinus1 > 0) {
    bits.Skip(2 * (8 - subLayersMinus1));
  }
  for (std::uint32_t i = 0; i < subLayersMinus1; ++i) {
    bits.Skip((hasProfile[i] ? 88u : 0u) + (hasLevel[i] ? 8u : 0u));
  }
}

// From chroma_format_idc to the bit depths. False when a limit is broken or the window leaves
// nothing of the picture.
bool ReadFormat(GolombReader& bits, H265Sps& set) {
  set.chromaFormat = bits.Unsigned();
  const bool separate = set.chromaFormat == 3 && bits.Flag();
  const std::uint32_t width = bits.Unsigned();
  const std::uint32_t height = bits.Unsigned();
  std::array<std::uint32_t, 4> window{};  // left, right, top, bottom
  if (bits.Flag()) {
    std::generate(window.begin(), window.end(), [&] { return bits.Unsigned(); });
  }
  const std::uint32_t lumaMinus8 = bits.Unsigned();
  const std::uint32_t chromaMinus8 = bits.Unsigned();
  const bool grey = set.chromaFormat == 0 || separate;
  const std::uint64_t unitX = !grey && set.chromaFormat != 3 ? 2 : 1;
  const std::uint64_t unitY = !grey && set.chromaFormat == 1 ? 2 : 1;
  const std::uint64_t hiddenX = unitX * (std::uint64_t{window[0]} + window[1]);
  const std::uint64_t hiddenY = unitY * (std::uint64_t{window[2]} + window[3]);
  if (!bits.Ok() || set.chromaFormat > 3 || std::max(width, height) > kMostSide ||
      std::max(lumaMinus8, chromaMinus8) > kMostDepthMinus8 || hiddenX >= width ||
      hiddenY >= height) {
    return false;
  }
  set.lumaBits = 8 + lumaMinus8;
  set.size = {static_cast<int>(width - hiddenX), static_cast<int>(height - hiddenY)};
  return true;
}

// scaling_list_data (7.3.4).
void SkipScalingLists(GolombReader& bits) {
  for (unsigned size = 0; size < 4; ++size) {
    for (unsigned matrix = 0; matrix < 6 && bits.Ok(); matrix += size == 3 ? 3 : 1) {
      if (!bits.Flag()) {
        bits.Unsigned();  // scaling_list_pred_matrix_id_delta
        continue;
      }
      if (size > 1) {
        bits.Signed();  // scaling_list_dc_coef_minus8
      }
      for (unsigned i = 0; i < std::min(64u, 16u << 2 * size) && bits.Ok(); ++i) {
        bits.Signed();
      }
    }
  }
}

// st_ref_pic_set (7.3.7), `before` being the number of pictures of the set in front of it and
// `first` whether there is none. The number of pictures; nothing when a limit is broken.
std::optional<std::uint32_t> SkipReferenceSet(GolombReader& bits, bool first,
                                              std::uint32_t before) {
  if (!first && bits.Flag()) {
    bits.Skip(1);     // delta_rps_sign
    bits.Unsigned();  // abs_delta_rps_minus1
    std::uint32_t pictures = 0;
    for (std::uint32_t i = 0; i <= before; ++i) {
      const bool used = bits.Flag();
      pictures += used || bits.Flag() ? 1 : 0;
    }
    return pictures <= kMostReferences ? std::optional(pictures) : std::nullopt;
  }
  const std::uint32_t negative = bits.Unsigned();
  const std::uint32_t positive = bits.Unsigned();
  if (!bits.Ok() || negative > kMostReferences || positive > kMostReferences - negative) {
    return std::nullopt;
  }
  for (std::uint32_t i = 0; i < negative + positive; ++i) {
    bits.Unsigned();  // delta_poc_minus1
    bits.Skip(1);     // used_by_curr_pic_flag
  }
  return negative + positive;
}

bool SkipReferenceSets(GolombReader& bits) {
  const std::uint32_t sets = bits.Unsigned();
  if (sets > kMostReferenceSets) {
    return false;
  }
  std::uint32_t pictures = 0;
  for (std::uint32_t i = 0; i < sets && bits.Ok(); ++i) {
    const auto count = SkipReferenceSet(bits, i == 0, pictures);
    if (!count) {
      return false;
    }
    pictures = *count;
  }
  return bits.Ok();
}

// vui_parameters up to the timing (E.2.1).
void ReadTiming(GolombReader& bits, H265Sps& set) {
  constexpr std::uint32_t kExtendedAspectRatio = 255;
  if (bits.Flag() && bits.Read(8) == kExtendedAspectRatio) {
    bits.Skip(32);
  }
  if (bits.Flag()) {
    bits.Skip(1);  // overscan_appropriate_flag
  }
  if (bits.Flag()) {
    bits.Skip(3 + 1);  // video_format, video_full_range_flag
    if (bits.Flag()) {
      bits.Skip(24);  // colour description
    }
  }
  if (bits.Flag()) {
    bits.Unsigned();  // chroma_sample_loc_type_top_field
    bits.Unsigned();  // and _bottom_field
  }
  bits.Skip(3);  // neutral_chroma_indication_flag, field_seq_flag, frame_field_info_present_flag
  if (bits.Flag()) {
    for (int side = 0; side < 4; ++side) {
      bits.Unsigned();  // default display window: not what decoders crop by
    }
  }
  if (bits.Flag()) {
    set.unitsInTick = bits.Read(32);
    set.timeScale = bits.Read(32);
  }
}

}  // namespace

std::optional<H265Sps> ReadH265Sps(Bytes sps) {
  GolombReader bits(sps.first(std::min(sps.size(), kMaxSpsBytes)));
  H265Sps set;
  bits.Skip(4);  // sps_video_parameter_set_id
  const std::uint32_t subLayersMinus1 = bits.Read(3);
  bits.Skip(1);  // sps_temporal_id_nesting_flag
  if (subLayersMinus1 > kMostSubLayersMinus1) {
    return std::nullopt;
  }
  ReadProfile(bits, subLayersMinus1, set);
  set.number = bits.Unsigned();
  if (!ReadFormat(bits, set)) {
    return std::nullopt;
  }
  const std::uint32_t log2OrderCountMinus4 = bits.Unsigned();
  if (set.number > kMostSpsNumber || log2OrderCountMinus4 > kMostLog2OrderCountMinus4) {
    return std::nullopt;
  }
  for (std::uint32_t i = bits.Flag() ? 0 : subLayersMinus1; i <= subLayersMinus1; ++i) {
    bits.Unsigned();  // sps_max_dec_pic_buffering_minus1
    bits.Unsigned();  // sps_max_num_reorder_pics
    bits.Unsigned();  // sps_max_latency_increase_plus1
  }
  for (int i = 0; i < 6; ++i) {
    bits.Unsigned();  // sizes of coding and transform blocks, and depths of their hierarchies
  }
  if (bits.Flag() && bits.Flag()) {
    SkipScalingLists(bits);
  }
  bits.Skip(2);  // amp_enabled_flag, sample_adaptive_offset_enabled_flag
  if (bits.Flag()) {
    bits.Skip(4 + 4);  // bit depths of PCM samples
    bits.Unsigned();
    bits.Unsigned();
    bits.Skip(1);
  }
  if (!SkipReferenceSets(bits)) {
    return std::nullopt;
  }
  if (bits.Flag()) {
    const std::uint32_t pictures = bits.Unsigned();
    if (pictures > kMostLongTerm) {
      return std::nullopt;
    }
    bits.Skip(pictures * (log2OrderCountMinus4 + 4 + 1));
  }
  bits.Skip(2);  // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
  if (bits.Flag()) {
    ReadTiming(bits, set);
  }
  return bits.Ok() ? std::optional(set) : std::nullopt;
}

}  // namespace cms
