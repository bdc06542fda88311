#include "cms/streaming/internal/picture_size.h"

#include <algorithm>
#include <array>

#include "cms/live/media/internal/bit_reader.h"
#include "cms/streaming/internal/annex_b.h"
#include "cms/streaming/internal/h265_parameter_sets.h"
#include "cms/streaming/internal/nal_unit.h"

namespace cms {
namespace {

constexpr std::uint32_t kMacroblock = 16;         // pixels
constexpr std::uint32_t kMostMacroblocks = 4096;  // of a side: 65,536 pixels

// Profiles whose sets describe the sampling of the colours (7.3.2.1.1).
bool DescribesColours(std::uint32_t profile) {
  constexpr std::array<std::uint32_t, 13> kProfiles = {100, 110, 122, 244, 44,  83, 86,
                                                       118, 128, 138, 139, 134, 135};
  return std::find(kProfiles.begin(), kProfiles.end(), profile) != kProfiles.end();
}

// scaling_list (7.3.2.1.1.1).
void SkipScalingList(GolombReader& bits, int entries) {
  std::int64_t last = 8;
  std::int64_t next = 8;
  for (int i = 0; i < entries && bits.Ok(); ++i) {
    if (next != 0) {
      next = (last + bits.Signed() + 256) % 256;
    }
    last = next == 0 ? last : next;
  }
}

// What one unit of cropping stands for, in pixels.
struct CropUnit {
  std::uint32_t x = 2;
  std::uint32_t y = 2;
};

// Reads what the high profiles have in front of log2_max_frame_num. Nothing for an unknown format.
std::optional<CropUnit> ReadColours(GolombReader& bits) {
  const std::uint32_t format = bits.Unsigned();
  if (format > 3) {
    return std::nullopt;
  }
  const bool separate = format == 3 && bits.Flag();
  bits.Unsigned();  // bit_depth_luma_minus8
  bits.Unsigned();  // bit_depth_chroma_minus8
  bits.Skip(1);     // qpprime_y_zero_transform_bypass_flag
  if (bits.Flag()) {
    for (int list = 0; list < (format == 3 ? 12 : 8); ++list) {
      if (bits.Flag()) {
        SkipScalingList(bits, list < 6 ? 16 : 64);
      }
    }
  }
  const bool grey = format == 0 || separate;
  return CropUnit{!grey && format != 3 ? 2u : 1u, !grey && format == 1 ? 2u : 1u};
}

// The first sequence parameter set in front of the picture, from behind its NAL header; empty when
// there is none.
Bytes SpsInAnnexB(NalCodec codec, Bytes frame) {
  for (std::size_t at = EndOfStartCode(frame, 0); at < frame.size();
       at = EndOfStartCode(frame, at)) {
    const unsigned type = NalType(codec, frame[at]);
    if (IsSps(codec, type)) {
      const std::size_t next = EndOfStartCode(frame, at);
      const std::size_t end = next < frame.size() ? next - kShortStartCode : next;
      return frame.first(end).subspan(std::min(at + NalHeaderSize(codec), end));
    }
    if (NalPlaceOf(codec, type) == NalPlace::kPicture) {
      break;
    }
  }
  return {};
}

}  // namespace

std::optional<PictureSize> FullH264Size(Bytes sps) {
  GolombReader bits(sps.first(std::min(sps.size(), kMaxSpsBytes)));
  const std::uint32_t profile = bits.Read(8);
  bits.Skip(16);    // constraint flags, level_idc
  bits.Unsigned();  // seq_parameter_set_id
  const auto unit = DescribesColours(profile) ? ReadColours(bits) : CropUnit();
  bits.Unsigned();  // log2_max_frame_num_minus4
  if (!unit || !SkipOrderCount(bits)) {
    return std::nullopt;
  }
  bits.Unsigned();  // max_num_ref_frames
  bits.Skip(1);     // gaps_in_frame_num_allowed_flag
  const std::uint32_t columns = bits.Unsigned();
  const std::uint32_t rows = bits.Unsigned();
  const std::uint32_t fields = bits.Flag() ? 1 : 2;  // frame_mbs_only_flag
  if (fields == 2) {
    bits.Skip(1);  // mb_adaptive_frame_field_flag
  }
  bits.Skip(1);                         // direct_8x8_inference_flag
  std::array<std::uint32_t, 4> crop{};  // left, right, top, bottom
  if (bits.Flag()) {
    std::generate(crop.begin(), crop.end(), [&] { return bits.Unsigned(); });
  }
  if (!bits.Ok() || columns >= kMostMacroblocks || rows >= kMostMacroblocks) {
    return std::nullopt;
  }
  const std::uint64_t width = std::uint64_t{columns + 1} * kMacroblock;
  const std::uint64_t height = std::uint64_t{rows + 1} * kMacroblock * fields;
  const std::uint64_t hiddenX = (std::uint64_t{crop[0]} + crop[1]) * unit->x;
  const std::uint64_t hiddenY = (std::uint64_t{crop[2]} + crop[3]) * unit->y * fields;
  if (hiddenX >= width || hiddenY >= height) {
    return std::nullopt;
  }
  return PictureSize{static_cast<int>(width - hiddenX), static_cast<int>(height - hiddenY)};
}

std::optional<PictureSize> AnnouncedSize(int videoType, Bytes frame) {
  constexpr std::size_t kHeaders = 4096;
  std::optional<PictureSize> size;
  switch (videoType) {
    case CMS_VIDEO_H264:
      size = FullH264Size(SpsInAnnexB(NalCodec::kH264, frame));
      break;
    case CMS_VIDEO_H265:
      if (const auto sps = ReadH265Sps(SpsInAnnexB(NalCodec::kH265, frame))) {
        size = sps->size;
      }
      break;
    case CMS_VIDEO_MJPEG:
      size = MjpegSize(frame);
      break;
    case CMS_VIDEO_MPEG4: {
      const Bytes headers = frame.first(std::min(frame.size(), kHeaders));
      const int vol = Mpeg4VolDataPos(headers);
      if (vol >= 0 && static_cast<std::size_t>(vol) < headers.size()) {
        size = Mpeg4Size(headers.subspan(static_cast<std::size_t>(vol)), false);
      }
      break;
    }
    default:
      break;
  }
  return size && size->width > 0 && size->height > 0 ? size : std::nullopt;
}

}  // namespace cms
