// BlockDecoder: one block of any codec to 16-bit samples.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "cms/audio/audio_decoder_base.h"
#include "cms/live/media/audio_endpoint.h"

namespace cms {

// For one thread. Allocates in its constructor only, for AAC until the first block too.
class BlockDecoder {
 public:
  static bool Knows(std::int32_t codecId);

  explicit BlockDecoder(const tCMSAudioPlayerConfig& config);  // of a codec that Knows

  // The samples of the block, valid until the next call; none when the block is refused.
  std::span<const std::int16_t> Decode(const unsigned char* block, int length);

  CAudioDecoderBase& Decoder() { return *decoder_; }

 private:
  const tCMSAudioPlayerConfig config_;
  std::unique_ptr<CAudioDecoderBase> decoder_;
  std::vector<unsigned char> block_;   // with what decoders read behind it
  std::vector<std::int16_t> samples_;  // of 8-bit sound, which is widened
};

}  // namespace cms
