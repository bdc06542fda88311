#include "cms/live/media/frame.h"

#include <algorithm>

namespace cms {
namespace {

std::span<const std::uint8_t> BlockOf(const void* data, int size) {
  return {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(std::max(size, 0))};
}

}  // namespace

FrameView FrameOf(const void* header, int headerSize, const void* data, int size, unsigned channel,
                  std::uint64_t arrivalUs) {
  FrameView frame;
  frame.header = BlockOf(header, headerSize);
  frame.payload = BlockOf(data, size);
  frame.channel = channel;
  frame.arrivalUs = arrivalUs;
  if (frame.header.size() >= kDrvHeaderSize) {
    frame.fields = DrvHeader(frame.header.first<kDrvHeaderSize>());
    frame.marks = ReadEventMarks(frame.fields, channel);
    frame.key = frame.fields.IsKeyFrame();
    frame.audio = frame.fields.IsAudio();
    frame.seconds = frame.fields.Seconds();
    frame.timeUs = frame.fields.TimeUs().value_or(0);
  }
  return frame;
}

}  // namespace cms
