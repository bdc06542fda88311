#include "cms/live/media/frame_header.h"

#include <algorithm>
#include <cstring>

#include "cms/live/media/frame_moment.h"

namespace cms {
namespace {

constexpr std::size_t kHeaderSize = sizeof(DRVFrameHeader);
constexpr std::size_t kHalf = kHeaderSize / 2;
constexpr std::size_t kFrameTimeBytes = 3;

// Bytes of the video area, counted from its end.
constexpr std::size_t kMarkFromEnd = 30;
constexpr std::size_t kCodecMarkFromEnd = 29;
constexpr std::size_t kLastMarkFromEnd = 4;

std::uint8_t CodecMark(int videoType) {
  switch (videoType) {
    case CMS_VIDEO_H264:
      return 0xF0;
    case CMS_VIDEO_MJPEG:
      return 0xD0;
    case CMS_VIDEO_MPEG4:
      return 0xE0;
    case CMS_VIDEO_H265:
      return 0xC0;
    default:
      return 0;
  }
}

// Halves round down.
std::uint32_t RoundedFrameRate(double rate) {
  if (!(rate > 0.0)) {
    return 0;
  }
  rate = std::min(rate, 1e6);
  const auto whole = static_cast<std::uint32_t>(rate);
  return (rate - 0.5 > whole ? whole + 1 : whole) & 0x3F;
}

DRVFrameHeader FirstHalf(const FrameInfo& info, std::uint32_t size, std::uint32_t flags) {
  DRVFrameHeader header{};
  header.magic[0] = '@';
  header.magic[1] = '2';
  header.version = 0x10;
  header.stream = static_cast<std::uint8_t>(0x10 | (info.streamNumber & 3) << 2);
  header.size = size;
  header.seconds =
      static_cast<std::uint32_t>(info.hostSeconds) + static_cast<std::uint32_t>(info.clockOffset);
  flags |= kFlagAlways | (info.announcedOtherRate ? kFlagOtherFrameRate : 0u);
  std::memcpy(header.flags, &flags, sizeof(header.flags));
  return header;
}

constexpr std::uint32_t FrameTimeOf(const FrameInfo& info) {
  return info.microseconds ? 1 + std::min(*info.microseconds, std::uint32_t{kMicro} - 1)
                           : kFrameTimeUntold;
}

}  // namespace

CMSVideoType VideoTypeOfHeader(std::span<const std::uint8_t> area) {
  if (area.size() != kVideoHeaderRoom) {
    return CMS_VIDEO_UNKNOWN;
  }
  const std::uint8_t mark = area[kVideoHeaderRoom - kCodecMarkFromEnd];
  for (const CMSVideoType type :
       {CMS_VIDEO_H264, CMS_VIDEO_MJPEG, CMS_VIDEO_MPEG4, CMS_VIDEO_H265}) {
    if (mark == CodecMark(type)) {
      return type;
    }
  }
  return CMS_VIDEO_UNKNOWN;
}

std::uint8_t XorCheck(std::span<const std::uint8_t> bytes) {
  std::uint8_t check = 0;
  for (const std::uint8_t byte : bytes) {
    check ^= byte;
  }
  return check;
}

void SealFrameHeader(std::span<std::uint8_t, kAudioHeaderRoom> header) {
  header[kHalf - 1] = XorCheck(header.first<kHalf - 1>());
  header[kHeaderSize - 1] = XorCheck(header.subspan<kHalf, kHalf - 1>());
}

void BuildVideoFrameHeader(std::span<std::uint8_t, kVideoHeaderRoom> area,
                           const VideoFrameInfo& info) {
  const std::uint32_t type = static_cast<std::uint32_t>(info.frameType) & 7;
  DRVFrameHeader header = FirstHalf(
      info, info.payloadSize + std::uint32_t{kHeaderSize},
      RoundedFrameRate(info.frameRate) << kFlagFrameRateShift | type << kFlagFrameTypeShift);
  header.areaLength = kVideoHeaderRoom;
  header.sequence = info.sequence;
  header.timeLow = static_cast<std::uint16_t>(FrameTimeOf(info));
  header.timeHigh = static_cast<std::uint8_t>(FrameTimeOf(info) >> 16);
  std::memset(area.data(), 0, area.size());
  std::memcpy(area.data(), &header, sizeof(header));
  area[kVideoHeaderRoom - kMarkFromEnd] = 1;
  area[kVideoHeaderRoom - kCodecMarkFromEnd] = CodecMark(info.videoType);
  area[kVideoHeaderRoom - kLastMarkFromEnd] = 1;
  SealFrameHeader(area.first<kHeaderSize>());
}

void BuildAudioFrameHeader(std::span<std::uint8_t, kAudioHeaderRoom> area,
                           const AudioFrameInfo& info) {
  const DRVFrameHeader header = FirstHalf(
      info, info.payloadSize, kFlagAudio | std::uint32_t{kKeyFrame} << kFlagFrameTypeShift);
  std::memcpy(area.data(), &header, sizeof(header));
  AudioFormatDescriptor format = info.format;
  for (std::size_t i = 0; info.microseconds && i < kFrameTimeBytes; ++i) {
    format.reserved[i] = static_cast<std::uint8_t>(FrameTimeOf(info) >> 8 * i);
  }
  std::memcpy(area.data() + kHalf, &format, sizeof(format));
  SealFrameHeader(area);
}

}  // namespace cms
