// AAC headers: what is read of any bytes can be written again, and reads as the same.
#include <vector>

#include "cms/live/media/internal/adts.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  if (const auto format = cms::ReadAudioSpecificConfig(bytes)) {
    CHECK(format->SampleRate() != 0);
    CHECK(cms::ReadAudioSpecificConfig(cms::AudioSpecificConfigOf(*format)) == format);
  }
  if (const auto frame = cms::ReadAdtsFrame(bytes)) {
    std::vector<std::uint8_t> block(cms::kAdtsHeaderSize);
    CHECK(cms::WriteAdtsHeader(std::span(block).first<cms::kAdtsHeaderSize>(), frame->format,
                               frame->unit.size()));
    block.insert(block.end(), frame->unit.begin(), frame->unit.end());
    const auto again = cms::ReadAdtsFrame(block);
    CHECK(again && again->format == frame->format && again->unit.size() == frame->unit.size());
  }
  return 0;
}
