#include "cms/live/media/internal/adts.h"

#include <iterator>

#include "cms/live/media/internal/bit_reader.h"

namespace cms {
namespace {

// samplingFrequencyIndex (ISO/IEC 14496-3, table 1.18).
constexpr unsigned kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
constexpr unsigned kMostChannels = 7;
constexpr unsigned kMostObjectType = 4;
constexpr unsigned kSbr = 5;  // of object types: SBR over the type that follows
constexpr unsigned kParametricStereo = 29;
constexpr std::size_t kMostFrameBytes = 0x1FFF;
constexpr std::size_t kChecksum = 2;
constexpr unsigned kVariableRate = 0x7FF;  // adts_buffer_fullness

bool IsUsable(const AdtsFormat& format) {
  return format.objectType >= 1 && format.objectType <= kMostObjectType &&
         format.rateIndex < std::size(kSampleRates) && format.channels >= 1 &&
         format.channels <= kMostChannels;
}

unsigned ReadObjectType(BitReader& bits) {
  constexpr unsigned kEscape = 31;
  const unsigned type = bits.Read(5);
  return type == kEscape ? 32 + bits.Read(6) : type;
}

unsigned ReadRateIndex(BitReader& bits) {
  constexpr unsigned kExplicit = 15;
  const unsigned index = bits.Read(4);
  if (index != kExplicit) {
    return index;
  }
  const unsigned rate = bits.Read(24);
  unsigned known = 0;
  while (known < std::size(kSampleRates) && kSampleRates[known] != rate) {
    ++known;
  }
  return known;
}

}  // namespace

unsigned AdtsFormat::SampleRate() const {
  return rateIndex < std::size(kSampleRates) ? kSampleRates[rateIndex] : 0;
}

std::optional<AdtsFormat> ReadAudioSpecificConfig(std::span<const std::uint8_t> config) {
  constexpr std::size_t kShortest = 2;
  if (config.size() < kShortest) {
    return std::nullopt;
  }
  BitReader bits(config);
  return ReadAudioSpecificConfig(bits);
}

std::optional<AdtsFormat> ReadAudioSpecificConfig(BitReader& bits) {
  constexpr unsigned kCoreCoderDelay = 14;
  AdtsFormat format;
  format.objectType = ReadObjectType(bits);
  format.rateIndex = ReadRateIndex(bits);
  format.channels = bits.Read(4);
  if (format.objectType == kSbr || format.objectType == kParametricStereo) {
    ReadRateIndex(bits);  // of the extension
    format.objectType = ReadObjectType(bits);
  }
  const bool shortUnits = bits.Flag();  // frameLengthFlag
  bits.Skip(bits.Flag() ? kCoreCoderDelay : 0);
  bits.Skip(bits.Flag() ? 1 : 0);  // extensionFlag3
  return IsUsable(format) && !shortUnits ? std::optional(format) : std::nullopt;
}

std::array<std::uint8_t, 2> AudioSpecificConfigOf(const AdtsFormat& format) {
  const unsigned bits = format.objectType << 11 | format.rateIndex << 7 | format.channels << 3;
  return {static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)};
}

bool WriteAdtsHeader(std::span<std::uint8_t, kAdtsHeaderSize> header, const AdtsFormat& format,
                     std::size_t unitBytes) {
  if (!IsUsable(format) || unitBytes > kMostFrameBytes - kAdtsHeaderSize) {
    return false;
  }
  const auto length = static_cast<unsigned>(unitBytes + kAdtsHeaderSize);
  const auto put = [&](std::size_t at, unsigned value) {
    header[at] = static_cast<std::uint8_t>(value);
  };
  put(0, 0xFF);
  put(1, 0xF1);  // MPEG-4, no checksum
  put(2, (format.objectType - 1) << 6 | format.rateIndex << 2 | format.channels >> 2);
  put(3, (format.channels & 3) << 6 | length >> 11);
  put(4, length >> 3);
  put(5, (length & 7) << 5 | kVariableRate >> 6);
  put(6, (kVariableRate & 0x3F) << 2);
  return true;
}

std::optional<AdtsFrame> ReadAdtsFrame(std::span<const std::uint8_t> block) {
  // The layer is 0, and there is one raw data block.
  if (block.size() < kAdtsHeaderSize || block[0] != 0xFF || (block[1] & 0xF6) != 0xF0 ||
      (block[6] & 3) != 0) {
    return std::nullopt;
  }
  AdtsFrame frame;
  frame.format.objectType = (block[2] >> 6) + 1u;
  frame.format.rateIndex = block[2] >> 2 & 0xFu;
  frame.format.channels = (block[2] & 1u) << 2 | block[3] >> 6;
  const std::size_t length =
      (block[3] & 3u) << 11 | static_cast<unsigned>(block[4]) << 3 | block[5] >> 5;
  const std::size_t header = kAdtsHeaderSize + ((block[1] & 1) == 0 ? kChecksum : 0);
  if (!IsUsable(frame.format) || length != block.size() || length <= header) {
    return std::nullopt;
  }
  frame.unit = block.subspan(header);
  return frame;
}

}  // namespace cms
