// libavcodec's audio codecs as oracles.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "cms/live/media/codec_id.h"

namespace test {

// Interleaved 16-bit samples of one packet; empty when the decoder refuses it. `blockAlign` is the
// packet's size for codecs with blocks.
std::vector<std::int16_t> DecodeAudio(AVCodecID codec, int channels,
                                      const std::vector<std::uint8_t>& packet);

// The packets that the encoder makes of interleaved samples; the last one may be padded.
// `blockSize` is the packets' size for codecs with blocks, else 0.
std::vector<std::vector<std::uint8_t>> EncodeAudio(AVCodecID codec, int channels, int blockSize,
                                                   const std::vector<std::int16_t>& samples);

// Blocks as a site has them, with the codec library's encoders: of AAC ADTS frames by libavformat's
// muxer, of G.726, G.711 and PCM 160 samples each; interleaved samples. The encoder of AAC is some
// samples behind: the first kAacDelay that are decoded are none of the sound.
inline constexpr std::size_t kAacDelay = 1024;
std::vector<std::vector<std::uint8_t>> EncodeBlocks(cms::CMSCodecID codec, int rate, int channels,
                                                    const std::vector<std::int16_t>& samples);

// A tone of 440 Hz that grows from silence to half of full scale.
std::vector<std::int16_t> Tone(std::size_t samples, int rate, int channels);

// How much louder, in decibels, the expected sound is than what differs from it.
double SignalToNoise(std::span<const std::int16_t> expected, std::span<const std::int16_t> heard);

// Sound that takes a codec through its paces: silence, a rising tone, noise, full-scale square
// waves.
std::vector<std::int16_t> TestSound(std::size_t samples, int channels);

}  // namespace test
