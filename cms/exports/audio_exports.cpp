#include "cms/exports/audio_exports.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "cms/audio/internal/g711.h"
#include "cms/audio/internal/ima_adpcm.h"
#include "cms/live/media/codec_id.h"

namespace {

using Decode = void (*)(const std::uint8_t*, std::size_t, std::int16_t*);
using Encode = void (*)(const std::int16_t*, std::size_t, std::uint8_t*);

int DecodeG711(Decode decode, const unsigned char* codes, int count, short* samples,
               int outputSize) {
  if (codes == nullptr || samples == nullptr || count < 1 || count > outputSize / 2) {
    return -1;
  }
  decode(codes, static_cast<std::size_t>(count), samples);
  return count * 2;
}

int EncodeG711(Encode encode, const short* samples, int count, unsigned char* codes,
               int outputSize) {
  if (samples == nullptr || codes == nullptr || count < 1 || outputSize < 1 ||
      count > std::int64_t{outputSize} * 2) {
    return -1;
  }
  encode(samples, static_cast<std::size_t>(std::min(count, outputSize)), codes);
  return count / 2;
}

struct Format {
  int codecId;
  int ratio;
};

Format FormatOf(const cms::CMSWaveFormat* format) {
  enum : std::uint16_t { kPcm = 1, kALaw = 6, kMuLaw = 7 };
  if (format == nullptr) {
    return {cms::CMS_CODEC_NONE, 0};
  }
  switch (format->formatTag) {
    case kPcm:
      return format->bitsPerSample == 16 ? Format{cms::CMS_CODEC_PCM_S16LE, 1}
                                         : Format{cms::CMS_CODEC_NONE, 0};
    case kALaw:
      return {cms::CMS_CODEC_PCM_ALAW, 2};
    case kMuLaw:
      return {cms::CMS_CODEC_PCM_MULAW, 2};
    default:
      return {cms::CMS_CODEC_NONE, 0};
  }
}

// The caller's state may hold anything; what is computed with is in range.
ADPCMState InRange(const ADPCMState& state) {
  return {.stepIndex = cms::ClampStepIndex(state.stepIndex),
          .predictedSample = cms::Clamp16(state.predictedSample)};
}

}  // namespace

int g711_aDecoder(const unsigned char* codes, int count, short* samples, int outputSize) {
  return DecodeG711(cms::DecodeALaw, codes, count, samples, outputSize);
}

int g711_uDecoder(const unsigned char* codes, int count, short* samples, int outputSize) {
  return DecodeG711(cms::DecodeMuLaw, codes, count, samples, outputSize);
}

int g711_aEncoder(const short* samples, int count, unsigned char* codes, int outputSize) {
  return EncodeG711(cms::EncodeALaw, samples, count, codes, outputSize);
}

int g711_uEncoder(const short* samples, int count, unsigned char* codes, int outputSize) {
  return EncodeG711(cms::EncodeMuLaw, samples, count, codes, outputSize);
}

int DecodeADPCMC(int code, ADPCMState* state) {
  if (code < 0 || code > 15) {
    std::fputs("[DecodeADPCMC] Error in ADPCM sample, aborting.\n\n", stderr);
    return 0;
  }
  if (state == nullptr) {
    std::fputs("[DecodeADPCMC] Error in ADPCMState, aborting.\n\n", stderr);
    return 0;
  }
  *state = InRange(*state);
  return cms::NextImaSample(static_cast<unsigned>(code), *state);
}

int EncodeADPCMC(int sample, int previousCode, ADPCMState* state) {
  DecodeADPCMC(previousCode, state);
  if (state == nullptr) {
    return 0;
  }
  const ADPCMState now = InRange(*state);  // a bad previous code has left it as it was
  const std::int64_t difference = std::int64_t{sample} - now.predictedSample;
  const std::int64_t step = cms::kImaSteps[static_cast<std::size_t>(now.stepIndex)];
  const auto code = static_cast<int>(std::min<std::int64_t>(std::abs(difference) * 4 / step, 7));
  return difference < 0 ? code + 8 : code;
}

void adpcm_decoder(const unsigned char* input, unsigned char* output, int length,
                   signed char* index, short* predictor) {
  constexpr int kMaximumIndex = 22;
  if (input == nullptr || output == nullptr || index == nullptr || predictor == nullptr) {
    return;
  }
  int step = cms::ClampStepIndex(*index);
  int sample = *predictor;
  for (int i = 0; i < length; ++i) {
    for (const unsigned nibble : {unsigned{input[i]} >> 4, input[i] & 0xFu}) {
      const int difference =
          static_cast<int>(nibble & 7) * cms::kImaSteps[static_cast<std::size_t>(step)] / 4;
      step = std::clamp(step + cms::kImaIndexAdjustments[nibble], 0, kMaximumIndex);
      sample = std::clamp((nibble & 8) != 0 ? sample - difference : sample + difference, -128, 127);
      *output++ = static_cast<unsigned char>(sample);
      *output++ = static_cast<unsigned char>(sample);
    }
  }
  if (length > 0) {
    *index = static_cast<signed char>(step);
    *predictor = static_cast<short>(sample);
  }
}

int GetAudioCodecIDFromAudioFmtTag(int* codecId, const cms::CMSWaveFormat* format) {
  if (codecId == nullptr) {
    return 0;
  }
  *codecId = FormatOf(format).codecId;
  return *codecId != cms::CMS_CODEC_NONE ? 1 : 0;
}

int GetAudioCompressRatioFromAudioFmtTag(int* ratio, const cms::CMSWaveFormat* format) {
  const Format found = FormatOf(format);
  if (ratio == nullptr || found.codecId == cms::CMS_CODEC_NONE) {
    return 0;
  }
  *ratio = found.ratio;
  return 1;
}
