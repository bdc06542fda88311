// ADTS headers: what a block of AAC needs in front of it to be decoded by itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace cms {

class BitReader;

inline constexpr std::size_t kAdtsHeaderSize = 7;  // without a checksum

// Samples of each channel in an access unit, before a decoder doubles them (SBR).
inline constexpr int kAacUnitSamples = 1024;

// The AAC that an ADTS header can name (ISO/IEC 14496-3, 1.A.2.2).
struct AdtsFormat {
  unsigned objectType = 2;  // 1 to 4; 2 is AAC-LC
  unsigned rateIndex = 0;   // 0 to 12
  unsigned channels = 1;    // channelConfiguration, 1 to 7
  bool operator==(const AdtsFormat&) const = default;

  unsigned SampleRate() const;
};

// The same as a session description and MP4 have it (ISO/IEC 14496-3, 1.6.2.1). Where it extends
// AAC by SBR or PS it gives the AAC, in which decoders find the extension. Nothing for what ADTS
// cannot name: other object types, rates that are no entry of the table, channels that the stream
// itself describes, units of 960 samples.
std::optional<AdtsFormat> ReadAudioSpecificConfig(std::span<const std::uint8_t> config);
// The same from where a reader stands, which stands behind it afterwards; what it is short of
// counts as zeros.
std::optional<AdtsFormat> ReadAudioSpecificConfig(BitReader& bits);
std::array<std::uint8_t, 2> AudioSpecificConfigOf(const AdtsFormat& format);

// Fills the header of an access unit of so many bytes. False when it is too long for one.
bool WriteAdtsHeader(std::span<std::uint8_t, kAdtsHeaderSize> header, const AdtsFormat& format,
                     std::size_t unitBytes);

struct AdtsFrame {
  AdtsFormat format;
  std::span<const std::uint8_t> unit;  // within the block
};

// The one access unit of a block, behind its header. Nothing when the block is anything else.
std::optional<AdtsFrame> ReadAdtsFrame(std::span<const std::uint8_t> block);

}  // namespace cms
