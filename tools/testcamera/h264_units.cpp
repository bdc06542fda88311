#include "tools/testcamera/h264_units.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

namespace testcamera {
namespace {

constexpr int kSequenceParameters = 7;
constexpr int kPictureParameters = 8;
constexpr int kDelimiter = 9;
constexpr std::uint8_t kDelimiterUnit[] = {0, 0, 0, 2, kDelimiter, 0xF0};

std::size_t ReadLength(const std::uint8_t* bytes) {
  return static_cast<std::size_t>(bytes[0]) << 24 | static_cast<std::size_t>(bytes[1]) << 16 |
         static_cast<std::size_t>(bytes[2]) << 8 | bytes[3];
}

}  // namespace

MiniPtr<GstBuffer> ConformUnits(GstBuffer* picture, bool delimiters) {
  std::vector<std::uint8_t> out;
  GstMapInfo map;
  gst_buffer_map(picture, &map, GST_MAP_READ);
  out.reserve(map.size + sizeof kDelimiterUnit);
  if (delimiters) {
    out.insert(out.end(), std::begin(kDelimiterUnit), std::end(kDelimiterUnit));
  }
  for (std::size_t at = 0; at + 5 <= map.size;) {
    const std::size_t size = std::min(ReadLength(map.data + at), map.size - at - 4) + 4;
    const int type = map.data[at + 4] & 0x1F;
    if (type != kSequenceParameters && type != kPictureParameters && type != kDelimiter) {
      out.insert(out.end(), map.data + at, map.data + at + size);
    }
    at += size;
  }
  gst_buffer_unmap(picture, &map);
  MiniPtr<GstBuffer> result(gst_buffer_new_memdup(out.data(), out.size()));
  gst_buffer_copy_into(
      result.get(), picture,
      static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0,
      static_cast<gsize>(-1));
  return result;
}

}  // namespace testcamera
