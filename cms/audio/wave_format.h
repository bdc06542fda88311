// The format record at the front of a wave stream, as in the "fmt " chunk of WAV files.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)
namespace cms {

struct CMSWaveFormat {
  std::uint16_t formatTag;  // 1 PCM, 6 A-law, 7 mu-law
  std::uint16_t channels;
  std::uint32_t samplesPerSecond;  // of each channel
  std::uint32_t bytesPerSecond;
  std::uint16_t blockAlign;  // bytes
  std::uint16_t bitsPerSample;
  std::uint16_t extraSize;  // bytes that follow the record
};

}  // namespace cms
#pragma pack(pop)

static_assert(sizeof(cms::CMSWaveFormat) == 18 &&
              offsetof(cms::CMSWaveFormat, bitsPerSample) == 14);
