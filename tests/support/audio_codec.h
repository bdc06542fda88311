// libavcodec's audio codecs as oracles.
#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace test {

// Interleaved 16-bit samples of one packet; empty when the decoder refuses it. `blockAlign` is the
// packet's size for codecs with blocks.
std::vector<std::int16_t> DecodeAudio(AVCodecID codec, int channels,
                                      const std::vector<std::uint8_t>& packet);

// The packets that the encoder makes of interleaved samples; the last one may be padded.
// `blockSize` is the packets' size for codecs with blocks, else 0.
std::vector<std::vector<std::uint8_t>> EncodeAudio(AVCodecID codec, int channels, int blockSize,
                                                   const std::vector<std::int16_t>& samples);

// Sound that takes a codec through its paces: silence, a rising tone, noise, full-scale square
// waves.
std::vector<std::int16_t> TestSound(std::size_t samples, int channels);

}  // namespace test
