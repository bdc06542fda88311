// DRVFrameHeader, the record in front of every video and audio frame, live and recorded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_type.h"
#include "cms/runtime/api.h"

// 32 bytes, little-endian, at any alignment. Each half is closed by the XOR of its other 15 bytes.
// In an audio header the bytes 16 to 30 are the stream's audio format descriptor instead.
#pragma pack(push, 1)
struct DRVFrameHeader {
  std::uint8_t magic[2];        // "@2"
  std::uint8_t version;         // 0x10
  std::uint8_t stream;          // bit 4 set; bits 2-3: stream number
  std::uint32_t size;           // video: payload + 32; audio: payload
  std::uint32_t seconds;        // arrival, since 1970-01-01 UTC
  std::uint8_t flags[3];        // 24-bit word: see cms::FrameHeaderFlag
  std::uint8_t check;           // XOR of bytes 0 to 14
  std::uint16_t timeLow;        // video: see cms::kFrameTimeUntold
  std::uint16_t areaLength;     // video: length of the header area, these 32 bytes included
  std::uint32_t sequence;       // video: counts the connection's frames from 1
  std::uint16_t alarmMask;      // recordings: one bit for each channel
  std::uint16_t videoLossMask;  // "
  std::uint16_t eventMask;      // "
  std::uint8_t timeHigh;        // video: "
  std::uint8_t secondCheck;     // XOR of bytes 16 to 30
};
#pragma pack(pop)

static_assert(sizeof(DRVFrameHeader) == 32 && alignof(DRVFrameHeader) == 1);
static_assert(
    offsetof(DRVFrameHeader, version) == 2 && offsetof(DRVFrameHeader, stream) == 3 &&
    offsetof(DRVFrameHeader, size) == 4 && offsetof(DRVFrameHeader, seconds) == 8 &&
    offsetof(DRVFrameHeader, flags) == 12 && offsetof(DRVFrameHeader, check) == 15 &&
    offsetof(DRVFrameHeader, timeLow) == 16 && offsetof(DRVFrameHeader, areaLength) == 18 &&
    offsetof(DRVFrameHeader, sequence) == 20 && offsetof(DRVFrameHeader, alarmMask) == 24 &&
    offsetof(DRVFrameHeader, videoLossMask) == 26 && offsetof(DRVFrameHeader, eventMask) == 28 &&
    offsetof(DRVFrameHeader, timeHigh) == 30 && offsetof(DRVFrameHeader, secondCheck) == 31);

namespace cms {

// The bytes that a depacketizer keeps free in front of a frame for its header.
inline constexpr std::size_t kVideoHeaderRoom = 116;
inline constexpr std::size_t kAudioHeaderRoom = 32;

// Bits of the flags word.
enum FrameHeaderFlag : std::uint32_t {
  kFlagOtherFrameRate = 1u << 0,  // the stream announced a frame rate other than 30
  kFlagAudio = 1u << 2,
  kFlagAlways = 1u << 8,
};
inline constexpr int kFlagFrameRateShift = 10;  // 6 bits, video only
inline constexpr int kFlagFrameTypeShift = 16;  // 3 bits; audio: 1

// Where the header's second alone is known. Else these 24 bits are 1 + the microseconds within that
// second: of video in timeLow and timeHigh, of audio in bytes 28 to 30, the lowest first.
inline constexpr std::uint32_t kFrameTimeUntold = 0;

struct FrameInfo {
  std::uint32_t payloadSize = 0;                // bytes, without any header
  std::int64_t hostSeconds = 0;                 // arrival by the host's clock, since 1970-01-01 UTC
  std::optional<std::uint32_t> microseconds{};  // within that second, where they are known
  std::int64_t clockOffset = 0;                 // seconds to add to it, the connection's
  unsigned streamNumber = 0;                    // 0 to 3
  bool announcedOtherRate = false;              // the stream announced a frame rate other than 30
};

struct VideoFrameInfo : FrameInfo {
  double frameRate = 30.0;
  int frameType = 0;           // a FrameType; the low 3 bits count
  int videoType = 0;           // a CMSVideoType
  std::uint32_t sequence = 0;  // of the connection, from 1
};

// What a described audio stream carries in each of its headers; the last byte gives way to the
// check.
struct AudioFormatDescriptor {
  std::uint32_t codecId = 0;  // CMSCodecID
  std::uint32_t sampleRate = 0;
  std::uint16_t channels = 0;
  std::uint16_t bitsPerSample = 0;
  std::array<std::uint8_t, 4> reserved{};
};
static_assert(sizeof(AudioFormatDescriptor) == 16);

struct AudioFrameInfo : FrameInfo {
  AudioFormatDescriptor format;
};

// Fill the whole area in front of a frame. No allocation; any thread.
CMS_API void BuildVideoFrameHeader(std::span<std::uint8_t, kVideoHeaderRoom> area,
                                   const VideoFrameInfo& info);
CMS_API void BuildAudioFrameHeader(std::span<std::uint8_t, kAudioHeaderRoom> area,
                                   const AudioFrameInfo& info);

// The video type that a whole video header area tells, if it does.
CMS_API CMSVideoType VideoTypeOfHeader(std::span<const std::uint8_t> area);

// The exclusive-or of the bytes.
CMS_API std::uint8_t XorCheck(std::span<const std::uint8_t> bytes);

// Recomputes both check bytes; whoever changes a byte of a finished header calls it.
CMS_API void SealFrameHeader(std::span<std::uint8_t, kAudioHeaderRoom> header);

}  // namespace cms
