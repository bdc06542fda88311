#include "cms/recording/internal/picture_format.h"

#include <algorithm>
#include <cstddef>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/stream_probes.h"

namespace cms {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kSearched = 1024;  // parameter sets stand in front of a key frame

int SequencePosition(CMSVideoType type, Bytes front) {
  switch (type) {
    case CMS_VIDEO_MPEG4:
      return Mpeg4VolDataPos(front);
    case CMS_VIDEO_H265:
      return H265SpsDataPos(front);
    default:
      return H264SpsDataPos(front);
  }
}

// Up to the next start code.
Bytes UnitAt(Bytes data, int position) {
  if (position < 0 || static_cast<std::size_t>(position) >= data.size()) {
    return {};
  }
  const Bytes unit = data.subspan(static_cast<std::size_t>(position));
  constexpr std::uint8_t kStart[] = {0, 0, 1};
  const auto end = std::search(unit.begin(), unit.end(), std::begin(kStart), std::end(kStart));
  return unit.first(static_cast<std::size_t>(end - unit.begin()));
}

std::uint64_t Mixed(std::uint64_t hash, std::uint64_t value) {
  return (hash ^ value) * 0x100000001B3;
}

}  // namespace

std::uint64_t PictureFormatOf(Bytes area, Bytes payload) {
  const CMSVideoType type = VideoTypeOfHeader(area);
  if (type == CMS_VIDEO_UNKNOWN) {
    return 0;
  }
  std::uint64_t hash = Mixed(0xCBF29CE484222325, static_cast<std::uint64_t>(type));
  if (type == CMS_VIDEO_MJPEG) {
    const PictureSize size = MjpegSize(payload);
    hash = Mixed(Mixed(hash, static_cast<std::uint64_t>(size.width)),
                 static_cast<std::uint64_t>(size.height));
    return hash | 1;
  }
  const Bytes front = payload.first(std::min(payload.size(), kSearched));
  const Bytes unit = UnitAt(front, SequencePosition(type, front));
  for (const std::uint8_t byte : unit) {
    hash = Mixed(hash, byte);
  }
  return unit.empty() ? 0 : hash | 1;
}

}  // namespace cms
