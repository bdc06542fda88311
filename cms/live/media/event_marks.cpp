#include "cms/live/media/event_marks.h"

namespace cms {
namespace {

constexpr unsigned kMaskedChannels = 16;
constexpr std::size_t kFlags = 12;
constexpr std::size_t kEventMask = 28;

}  // namespace

EventMarks ReadEventMarks(const DrvHeader& header, unsigned channel) {
  if (header.MarksInFlags()) {
    const unsigned flags = header.Flags();
    return {(flags & kDrvFlagDeviceEvent) != 0, (flags & kDrvFlagAlarm) != 0,
            (flags & kDrvFlagVideoLoss) != 0};
  }
  if (channel >= kMaskedChannels) {
    return {};
  }
  const unsigned bit = 1u << channel;
  return {(header.EventMask() & bit) != 0, (header.AlarmMask() & bit) != 0,
          (header.VideoLossMask() & bit) != 0};
}

bool SetDeviceEventMark(std::span<std::uint8_t, kDrvHeaderSize> header, unsigned channel) {
  if ((header[kFlags] & kDrvFlagMarksInFlags) != 0) {
    header[kFlags] |= kDrvFlagDeviceEvent;
    return true;
  }
  if (channel >= kMaskedChannels) {
    return false;
  }
  const std::size_t low = IsLittleEndianKind(header[1]) ? kEventMask : kEventMask + 1;
  const std::size_t high = 2 * kEventMask + 1 - low;
  header[channel < 8 ? low : high] |= static_cast<std::uint8_t>(1u << channel % 8);
  return true;
}

}  // namespace cms
