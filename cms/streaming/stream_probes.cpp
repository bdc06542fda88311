#include "cms/streaming/stream_probes.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>

#include "cms/live/media/frame_header.h"
#include "cms/live/media/internal/bit_reader.h"
#include "cms/streaming/internal/nal_unit.h"

namespace cms {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

// Position of the first 00 00 01 at or behind `from` whose next byte satisfies the predicate, which
// also sees the position; kNone when there is none.
template <typename Predicate>
std::size_t FindStartCode(Bytes data, std::size_t from, Predicate matches) {
  std::size_t at = from + 2;
  while (at + 1 < data.size()) {
    const void* one = std::memchr(data.data() + at, 1, data.size() - 1 - at);
    if (one == nullptr) {
      return kNone;
    }
    at = static_cast<std::size_t>(static_cast<const unsigned char*>(one) - data.data());
    if (data[at - 1] == 0 && data[at - 2] == 0 && matches(at - 2, data[at + 1])) {
      return at - 2;
    }
    ++at;
  }
  return kNone;
}

// The rule that all scans share: `match` is the pattern's position or kNone.
int OffsetBehind(std::size_t match, std::size_t patternLength, std::size_t length) {
  const auto length32 = static_cast<std::uint32_t>(length);
  const auto pattern32 = static_cast<std::uint32_t>(patternLength);
  const std::uint32_t at = match == kNone ? length32 : static_cast<std::uint32_t>(match);
  // The difference wraps for data shorter than the pattern, which then always has an offset.
  return at < length32 - pattern32 ? static_cast<int>(at + pattern32) : -1;
}

int H264NalDataPos(Bytes frame, unsigned int nalType) {
  std::size_t match = FindStartCode(frame, 1, [&](std::size_t at, unsigned char header) {
    return frame[at - 1] == 0 && (header & 0x1Fu) == nalType;
  });
  if (match != kNone) {
    --match;  // the pattern has one more zero in front
  }
  return OffsetBehind(match, 5, frame.size());
}

// An SEI number: 255 for each FF byte plus the first other byte. False when cut short.
bool ReadSeiNumber(Bytes data, std::size_t& at, unsigned int& value) {
  value = 0;
  while (at < data.size()) {
    const unsigned char byte = data[at++];
    value += byte;
    if (byte != 0xFF) {
      return true;
    }
  }
  return false;
}

}  // namespace

CMSVideoType VideoTypeOf(Bytes frame) {
  // Byte by byte: no more is read than the answer needs, for callers that do not know the length.
  const auto is = [&](std::size_t at, unsigned char value) {
    return at < frame.size() && frame[at] == value;
  };
  if (is(0, 0xFF)) {
    return is(1, 0xD8) ? CMS_VIDEO_MJPEG : CMS_VIDEO_UNKNOWN;
  }
  if (!is(0, 0) || !is(1, 0)) {
    return CMS_VIDEO_UNKNOWN;
  }
  if (is(2, 1)) {
    return CMS_VIDEO_MPEG4;
  }
  return is(2, 0) && is(3, 1) ? CMS_VIDEO_H264 : CMS_VIDEO_UNKNOWN;
}

CMSVideoType VideoTypeOfKeyFrame(Bytes frame) {
  constexpr unsigned char kBaseLayer = 1;  // and its lowest sub-layer
  const CMSVideoType type = VideoTypeOf(frame);
  const bool longCode = type == CMS_VIDEO_H264;
  const std::size_t header = longCode ? 4 : 3;
  if ((!longCode && type != CMS_VIDEO_MPEG4) || frame.size() < header + 2 ||
      (frame[header] & 0x81u) != 0 || frame[header + 1] != kBaseLayer) {
    return type;
  }
  // Behind a short code a picture could be a layer of MPEG-4.
  const unsigned unit = NalType(NalCodec::kH265, frame[header]);
  const bool begins = (unit >= kH265Vps && unit <= kH265Delimiter) || unit == kH265PrefixSei ||
                      (longCode && IsIrap(unit));
  return begins ? CMS_VIDEO_H265 : type;
}

CMSVideoType VideoTypeOfKeyFrame(Bytes area, Bytes frame) {
  const CMSVideoType marked = VideoTypeOfHeader(area);
  return marked != CMS_VIDEO_UNKNOWN ? marked : VideoTypeOfKeyFrame(frame);
}

int Mpeg4VopDataPos(Bytes frame) {
  const auto match =
      FindStartCode(frame, 0, [](std::size_t, unsigned char code) { return code == 0xB6; });
  return OffsetBehind(match, 4, frame.size());
}

int Mpeg4VolDataPos(Bytes frame) {
  const auto match = FindStartCode(
      frame, 0, [](std::size_t, unsigned char code) { return (code & 0xF0) == 0x20; });
  return OffsetBehind(match, 4, frame.size());
}

int H264SpsDataPos(Bytes frame) {
  return H264NalDataPos(frame, 7);
}

int H264SeiDataPos(Bytes frame) {
  return H264NalDataPos(frame, 6);
}

int H265SpsDataPos(Bytes frame) {
  constexpr std::size_t kBehind = 5;  // of the shorter start code and the NAL header
  const std::size_t match = FindStartCode(frame, 0, [](std::size_t, unsigned char header) {
    return NalType(NalCodec::kH265, header) == kH265Sps;
  });
  return match != kNone && match + kBehind < frame.size() ? static_cast<int>(match + kBehind) : -1;
}

int Mpeg4FrameType(Bytes vop) {
  return vop.empty() ? 0 : (vop[0] >> 6) + 1;
}

bool StartsWithMpeg4IVop(Bytes data) {
  const int pos = Mpeg4VopDataPos(data);
  return pos >= 0 && static_cast<std::size_t>(pos) < data.size() &&
         Mpeg4FrameType(data.subspan(static_cast<std::size_t>(pos))) == 1;
}

std::optional<PictureSize> Mpeg4Size(Bytes vol, bool halveInterlaced) {
  BitReader bits(vol);
  bits.Skip(1 + 8);  // random_accessible_vol, video_object_type_indication
  if (bits.Flag()) {
    bits.Skip(4 + 3);  // verid, priority
  }
  // aspect_ratio_info. The two bytes of an extended pixel aspect ratio (value 15) are never
  // skipped, on purpose: sizes read from such layers have always been read this way.
  bits.Skip(4);
  if (bits.Flag()) {    // vol_control_parameters
    bits.Skip(2 + 1);   // chroma_format, low_delay
    if (bits.Flag()) {  // vbv_parameters
      bits.Skip(79);
    }
  }
  if (bits.Read(2) != 0) {  // video_object_layer_shape
    return std::nullopt;
  }
  bits.Skip(1);
  const std::uint32_t resolution = bits.Read(16);
  bits.Skip(1);
  if (bits.Flag()) {  // fixed_vop_rate
    // The width of the increment is taken from the resolution itself, not from the largest
    // increment: one bit more than the standard's for powers of two, on purpose.
    bits.Skip(std::max(1u, static_cast<unsigned int>(std::bit_width(resolution))));
  }
  bits.Skip(1);
  PictureSize size;
  size.width = static_cast<int>(bits.Read(13));
  bits.Skip(1);
  size.height = static_cast<int>(bits.Read(13));
  bits.Skip(1);
  const bool interlaced = bits.Flag();
  if (!bits.Ok()) {
    return std::nullopt;
  }
  if (interlaced && halveInterlaced) {
    size.width /= 2;
    size.height /= 2;
  }
  return size;
}

std::optional<PictureSize> H264Size(Bytes sps) {
  GolombReader bits(sps.first(std::min(sps.size(), kMaxSpsBytes)));
  bits.Skip(24);    // profile_idc, constraint flags, level_idc
  bits.Unsigned();  // seq_parameter_set_id
  bits.Unsigned();  // log2_max_frame_num_minus4
  if (!SkipOrderCount(bits)) {
    return std::nullopt;
  }
  bits.Unsigned();  // max_num_ref_frames
  bits.Skip(1);     // gaps_in_frame_num_allowed_flag
  const std::uint32_t width = bits.Unsigned();
  const std::uint32_t height = bits.Unsigned();
  constexpr std::uint32_t kMaxMacroblocks = 0x07FFFFFE;  // so that the size in pixels fits an int
  if (!bits.Ok() || width > kMaxMacroblocks || height > kMaxMacroblocks) {
    return std::nullopt;
  }
  PictureSize size{static_cast<int>((width + 1) * 16), static_cast<int>((height + 1) * 16)};
  switch (size.height) {
    case 1952:
      size.height = 1944;
      break;
    case 1088:
      size.height = 1080;
      break;
    case 608:
      size.height = 600;
      break;
    default:
      break;
  }
  return size;
}

std::optional<SeiMessage> ParseSeiMessage(Bytes message) {
  SeiMessage result;
  std::size_t at = 0;
  if (!ReadSeiNumber(message, at, result.type) || !ReadSeiNumber(message, at, result.size)) {
    return std::nullopt;
  }
  result.payloadPos = static_cast<int>(at);
  return result;
}

PictureSize MjpegSize(Bytes frame) {
  std::size_t at = 2;
  while (at + 1 < frame.size()) {
    const void* marker = std::memchr(frame.data() + at, 0xFF, frame.size() - 1 - at);
    if (marker == nullptr) {
      break;
    }
    at = static_cast<std::size_t>(static_cast<const unsigned char*>(marker) - frame.data());
    if (frame[at + 1] == 0xC0) {
      if (at + 8 >= frame.size()) {
        break;
      }
      return {frame[at + 7] << 8 | frame[at + 8], frame[at + 5] << 8 | frame[at + 6]};
    }
    ++at;
  }
  return {};
}

std::int64_t SystemTimeToSeconds(const CMSSystemTime& time) {
  std::tm parts{};
  parts.tm_year = time.wYear - 1900;
  parts.tm_mon = time.wMonth - 1;
  parts.tm_mday = time.wDay + 1;
  parts.tm_hour = time.wHour;
  parts.tm_min = time.wMinute;
  parts.tm_sec = time.wSecond;
  parts.tm_wday = time.wDayOfWeek;
  parts.tm_isdst = -1;
  return timegm(&parts);
}

}  // namespace cms
