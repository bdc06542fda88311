// DrvHeader reads frame headers, those of frames on their way and those in recordings.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/live/media/frame_type.h"
#include "cms/runtime/api.h"

namespace cms {

inline constexpr std::size_t kDrvHeaderSize = 32;
inline constexpr std::uint8_t kDrvSync = 0x40;

// Where an event mark is meant to stand: see DrvHeader::MarksInFlags.
inline constexpr std::uint8_t kDrvFlagAudio = 1u << 2;         // byte 12
inline constexpr std::uint8_t kDrvFlagMarksInFlags = 1u << 1;  // byte 12
inline constexpr std::uint8_t kDrvFlagVideoLoss = 1u << 5;     // byte 12
inline constexpr std::uint8_t kDrvFlagAlarm = 1u << 6;         // byte 12
inline constexpr std::uint8_t kDrvFlagDeviceEvent = 1u << 7;   // byte 12

// The kinds of header that a reader accepts.
constexpr bool IsDrvKind(std::uint8_t kind) {
  return kind == '2' || kind == '6' || kind == '8' || kind == 'v';
}

// The numbers of kind '6' (and of any other) are in network order.
constexpr bool IsLittleEndianKind(std::uint8_t kind) {
  return kind == '2' || kind == '8' || kind == 'v';
}

// A frame header as it lies on disk. A copy of its 32 bytes with readers for the numbers that
// follow the byte order of its kind.
class CMS_API DrvHeader {
 public:
  DrvHeader() = default;
  explicit DrvHeader(std::span<const std::uint8_t, kDrvHeaderSize> bytes);

  // What has to hold before anything else is believed.
  bool HasSync() const { return bytes_[0] == kDrvSync && IsDrvKind(bytes_[1]); }
  bool FirstCheckHolds() const;
  bool SecondCheckHolds() const;
  bool Holds() const { return HasSync() && FirstCheckHolds() && SecondCheckHolds(); }

  std::uint8_t Kind() const { return bytes_[1]; }
  bool IsAudio() const { return (bytes_[12] & kDrvFlagAudio) != 0; }
  bool IsKeyFrame() const { return !IsAudio() && FrameType() == kKeyFrame; }
  std::uint8_t FrameType() const { return bytes_[14] & 7; }
  std::uint8_t StreamNumber() const { return bytes_[3] >> 2 & 3; }
  std::uint32_t Seconds() const { return Number32(8); }  // since 1970-01-01 UTC
  std::uint32_t Sequence() const { return Number32(20); }
  // When the frame was taken, in microseconds since 1970-01-01 UTC, within Seconds(); nothing where
  // the header tells its second alone. See FrameMoment::timeUs.
  std::optional<std::int64_t> TimeUs() const;

  // Bytes in front of the payload: what the header says for video, which counts the header itself
  // (never less than that), and the header alone for audio.
  std::uint32_t AreaLength() const;
  // Bytes of payload: the header's number, which counts 32 more for video.
  std::uint32_t PayloadLength() const;
  // The whole frame on disk.
  std::uint64_t FrameLength() const { return std::uint64_t{AreaLength()} + PayloadLength(); }

  // The event state is either in flags of its own or in masks with a bit for each channel.
  bool MarksInFlags() const { return (bytes_[12] & kDrvFlagMarksInFlags) != 0; }
  std::uint8_t Flags() const { return bytes_[12]; }
  std::uint16_t AlarmMask() const { return Number16(24); }
  std::uint16_t VideoLossMask() const { return Number16(26); }
  std::uint16_t EventMask() const { return Number16(28); }

  std::span<const std::uint8_t, kDrvHeaderSize> Bytes() const { return bytes_; }

 private:
  std::uint16_t Number16(std::size_t offset) const;
  std::uint32_t Number32(std::size_t offset) const;

  std::array<std::uint8_t, kDrvHeaderSize> bytes_{};
};

}  // namespace cms
