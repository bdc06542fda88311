// Talk-back and listening without a device: a tone as mu-law blocks of 20 ms, and what a client
// hears of them.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cms/audio/g711_decoders.h"
#include "cms/exports/audio_exports.h"
#include "cms/live/media/codec_id.h"

namespace {

constexpr int kBlock = 160;  // samples of 20 ms at 8000 Hz

}  // namespace

int main() {
  MULawDecoder decoder;
  const cms::CAudioDecoderConfig config{cms::CMS_CODEC_PCM_MULAW, kBlock, 1, 0, nullptr};
  if (decoder.Initialize(&config) != 1) {
    return 1;
  }
  int worst = 0;
  double phase = 0;
  for (int number = 0; number < 50; ++number) {
    std::vector<short> spoken(kBlock);
    for (short& sample : spoken) {
      sample = static_cast<short>(8000 * std::sin(phase));
      phase += 0.3456;
    }
    // To the device: one byte a sample, counted in pairs.
    unsigned char codes[kBlock];
    if (g711_uEncoder(spoken.data(), kBlock, codes, sizeof codes) != kBlock / 2) {
      return 1;
    }
    // From the device: 16-bit samples for a player, in the decoder's own buffer.
    unsigned char* data = nullptr;
    unsigned int length = 0;
    if (decoder.Decode(codes, kBlock, 0) != 1 || decoder.GetDecodedData(&data, &length) != 1) {
      return 1;
    }
    const short* heard = reinterpret_cast<const short*>(data);
    for (unsigned int i = 0; i < length / sizeof(short); ++i) {
      worst = std::max(worst, std::abs(heard[i] - spoken[i]));
    }
  }
  std::printf("50 blocks, no sample off by more than %d\n", worst);
}
