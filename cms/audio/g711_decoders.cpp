#include "cms/audio/g711_decoders.h"

#include "cms/audio/internal/g711.h"

namespace {

constexpr unsigned int kG711Factor = 2;

}  // namespace

int ALawDecoder::Initialize(const cms::CAudioDecoderConfig* config) {
  return InitializeOutput(config, kG711Factor, 0);
}

int ALawDecoder::Decode(const unsigned char* block, int length, unsigned int /*channelMode*/) {
  if (!TakeOrSilence(block, length, kG711Factor)) {
    return 0;
  }
  cms::DecodeALaw(block, static_cast<std::size_t>(length),
                  reinterpret_cast<std::int16_t*>(output_.get()));
  outputLength_ = kG711Factor * static_cast<std::uint32_t>(length);
  return 1;
}

int MULawDecoder::Initialize(const cms::CAudioDecoderConfig* config) {
  return InitializeOutput(config, kG711Factor, 0);
}

int MULawDecoder::Decode(const unsigned char* block, int length, unsigned int /*channelMode*/) {
  if (!TakeOrSilence(block, length, kG711Factor)) {
    return 0;
  }
  cms::DecodeMuLaw(block, static_cast<std::size_t>(length),
                   reinterpret_cast<std::int16_t*>(output_.get()));
  outputLength_ = kG711Factor * static_cast<std::uint32_t>(length);
  return 1;
}
