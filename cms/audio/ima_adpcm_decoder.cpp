#include "cms/audio/ima_adpcm_decoder.h"

#include <algorithm>

#include "cms/audio/internal/ima_adpcm.h"

namespace {

constexpr unsigned int kImaFactor = 4;
constexpr std::size_t kGroupSamples = 16;
constexpr std::size_t kFirstState = 56;
constexpr std::size_t kSecondState = 60;

// A state in the header: the predictor, 16 bits little-endian, then the step index.
ADPCMState ReadState(const unsigned char* bytes) {
  return {.stepIndex = cms::ClampStepIndex(bytes[2]),
          .predictedSample = static_cast<std::int16_t>(bytes[0] | bytes[1] << 8)};
}

// `size` bytes, low nibble first, to every kStride-th sample.
template <std::size_t kStride>
void DecodeNibbles(const unsigned char* bytes, std::size_t size, ADPCMState& state,
                   std::int16_t* out) {
  for (std::size_t i = 0; i < size; ++i, out += 2 * kStride) {
    out[0] = static_cast<std::int16_t>(cms::NextImaSample(bytes[i] & 0xFu, state));
    out[kStride] = static_cast<std::int16_t>(cms::NextImaSample(bytes[i] >> 4, state));
  }
}

void Fade(ADPCMState& state, std::int16_t* out) {
  for (std::size_t i = 0; i < kGroupSamples; i += 2) {
    const int step = cms::kImaSteps[static_cast<std::size_t>(state.stepIndex)];
    state.predictedSample = cms::Clamp16(state.predictedSample + step / 8);
    state.stepIndex = std::max(state.stepIndex - 1, 0);
    out[i] = static_cast<std::int16_t>(state.predictedSample);
  }
}

}  // namespace

int IMAADPCMDecoder::Initialize(const cms::CAudioDecoderConfig* config) {
  firstStepIndex_ = 0;
  secondStepIndex_ = 0;
  firstPredictor_ = 0;
  secondPredictor_ = 0;
  return InitializeOutput(config, kImaFactor, kGroupSamples * sizeof(std::int16_t));
}

int IMAADPCMDecoder::GetIndexAndPrediction(const unsigned char* block, unsigned int channelMode) {
  const bool known = block != nullptr && channelMode <= 2;
  const ADPCMState none{};
  const ADPCMState first = known && channelMode != 1 ? ReadState(block + kFirstState) : none;
  const ADPCMState second = known && channelMode != 2 ? ReadState(block + kSecondState) : none;
  firstStepIndex_ = first.stepIndex;
  firstPredictor_ = first.predictedSample;
  secondStepIndex_ = second.stepIndex;
  secondPredictor_ = second.predictedSample;
  return known ? 1 : 0;
}

int IMAADPCMDecoder::Decode(const unsigned char* block, int dataLength, unsigned int channelMode) {
  outputLength_ = 0;
  if (block == nullptr || dataLength < 1 ||
      !Fits(std::uint64_t{kImaFactor} * static_cast<unsigned>(dataLength))) {
    return 0;
  }
  GetIndexAndPrediction(block, channelMode);
  ADPCMState first{.stepIndex = firstStepIndex_, .predictedSample = firstPredictor_};
  ADPCMState second{.stepIndex = secondStepIndex_, .predictedSample = secondPredictor_};
  const std::size_t groups = static_cast<std::size_t>(dataLength - 1) / kGroupSize + 1;
  const unsigned char* group = block + kHeaderSize;
  auto* out = reinterpret_cast<std::int16_t*>(output_.get());
  if (channelCount_ != 2) {
    const auto size = static_cast<std::size_t>(dataLength);
    constexpr unsigned char kNoCodes[kGroupSize] = {};
    DecodeNibbles<1>(group, size, second, out);
    DecodeNibbles<1>(kNoCodes, groups * kGroupSize - size, second, out + 2 * size);
  } else {
    for (std::size_t i = 0; i < groups; ++i, group += kGroupSize, out += kGroupSamples) {
      if (channelMode <= 1) {
        DecodeNibbles<2>(group + 4, 4, second, out);
      } else {
        Fade(second, out);
      }
      if (channelMode == 0 || channelMode == 2) {
        DecodeNibbles<2>(group, 4, first, out + 1);
      } else {
        Fade(first, out + 1);
      }
    }
  }
  firstStepIndex_ = first.stepIndex;
  firstPredictor_ = first.predictedSample;
  secondStepIndex_ = second.stepIndex;
  secondPredictor_ = second.predictedSample;
  outputLength_ = kImaFactor * static_cast<std::uint32_t>(dataLength);
  return 1;
}
