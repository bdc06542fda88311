#include "cms/audio/pcm_decoder.h"

#include <algorithm>

#include "cms/live/media/codec_id.h"

int PCMDecoder::Decode(const unsigned char* block, int length, unsigned int /*channelMode*/) {
  if (!TakeOrSilence(block, length, 1)) {
    return 0;
  }
  const auto size = static_cast<std::size_t>(length);
  unsigned char* const out = output_.get();
  if (codecId_ == cms::CMS_CODEC_PCM_S16BE) {
    for (std::size_t i = 0; i + 1 < size; i += 2) {
      out[i] = block[i + 1];
      out[i + 1] = block[i];
    }
    if (size % 2 != 0) {
      out[size - 1] = block[size - 1];
    }
  } else if (codecId_ == cms::CMS_CODEC_PCM_U8) {
    std::transform(block, block + size, out,
                   [](unsigned char each) { return static_cast<unsigned char>(each + 128); });
  } else {
    std::copy_n(block, size, out);
  }
  outputLength_ = static_cast<std::uint32_t>(length);
  return 1;
}
