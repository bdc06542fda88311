#include "cms/streaming/internal/stream_mux.h"

namespace cms {
namespace {

constexpr std::uint32_t kMostConfigBits = 16'384;  // of an AudioSpecificConfig

// LatmGetValue (1.7.3.1).
std::uint32_t ReadValue(BitReader& bits) {
  const unsigned bytes = bits.Read(2) + 1;
  return bits.Read(bytes * 8);
}

// Version 1 tells how long the configuration is, and fills it up.
std::optional<AdtsFormat> ReadSoundConfig(BitReader& bits, bool version1) {
  const std::uint32_t length = version1 ? ReadValue(bits) : 0;
  const std::size_t begin = bits.Position();
  const auto format = ReadAudioSpecificConfig(bits);
  const std::size_t read = bits.Position() - begin;
  if (version1) {
    if (length < read || length > kMostConfigBits) {
      return std::nullopt;
    }
    bits.Skip(static_cast<unsigned>(length - read));
  }
  return format;
}

std::uint64_t ReadOtherBits(BitReader& bits, bool version1) {
  if (!bits.Flag()) {
    return 0;
  }
  if (version1) {
    return ReadValue(bits);
  }
  constexpr std::uint64_t kMost = 0xFFFFFFFF;
  std::uint64_t length = 0;
  bool more = true;
  while (more && length <= kMost) {
    more = bits.Flag();
    length = length << 8 | bits.Read(8);
  }
  return length;
}

// GStreamer's payloader, and cameras with it, describe the configuration of their encoder, with
// what it says about SBR (1.6.5: none, as a rule), and nothing behind it.
bool EndsBehindSound(BitReader bits) {
  constexpr std::uint32_t kSyncExtension = 0x2B7;
  constexpr unsigned kSyncBits = 11;
  if (!bits.Ok()) {
    return false;
  }
  BitReader padding = bits;
  padding.Skip(8);
  return !padding.Ok() || (bits.Read(kSyncBits) == kSyncExtension && bits.Ok());
}

}  // namespace

std::optional<StreamMux> ReadStreamMuxConfig(BitReader& bits, bool described) {
  const bool version1 = bits.Flag();
  if (version1 && bits.Flag()) {
    return std::nullopt;  // audioMuxVersionA: of the future
  }
  if (version1) {
    ReadValue(bits);  // taraBufferFullness
  }
  StreamMux mux;
  const bool sameTimeFraming = bits.Flag();
  mux.units = bits.Read(6) + 1;
  const std::uint32_t morePrograms = bits.Read(4);
  const std::uint32_t moreLayers = bits.Read(3);
  if (!sameTimeFraming || morePrograms != 0 || moreLayers != 0) {
    return std::nullopt;
  }
  const auto format = ReadSoundConfig(bits, version1);
  if (!format) {
    return std::nullopt;
  }
  mux.format = *format;
  if (described && !version1 && EndsBehindSound(bits)) {
    return mux;
  }
  constexpr std::uint32_t kLengthIsTold = 0;
  constexpr std::uint32_t kLengthIsConstant = 1;
  constexpr std::size_t kShortestConstant = 20;  // bytes
  switch (bits.Read(3)) {
    case kLengthIsTold:
      bits.Skip(8);  // latmBufferFullness
      break;
    case kLengthIsConstant:
      mux.constantBytes = kShortestConstant + bits.Read(9);
      break;
    default:
      return std::nullopt;  // of speech coders
  }
  mux.otherBits = ReadOtherBits(bits, version1);
  bits.Skip(bits.Flag() ? 8 : 0);  // a checksum of what is above
  return bits.Ok() ? std::optional(mux) : std::nullopt;
}

}  // namespace cms
