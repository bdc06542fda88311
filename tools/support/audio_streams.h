// The codecs of `orvanta audio`: a file's bytes, chunk by chunk, to 16-bit samples, and back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace tools {

inline constexpr std::size_t kChunkFrames = 8192;  // of a chunk, where the codec knows no blocks
inline constexpr std::size_t kUsualImaBlock = 504;

struct AudioStreamOptions {
  std::string codec;
  int channels = 1;
  std::size_t blockSize = 0;  // bytes of a block, without the header of "ima"; 0: the codec's usual
  unsigned channelMode = 0;   // of "ima"
};

using AudioSamples = std::vector<std::int16_t>;  // interleaved

class AudioDecodeStream {
 public:
  virtual ~AudioDecodeStream() = default;

  // So many bytes each call of Decode wants; the last one takes what is left.
  virtual std::size_t ChunkSize() const = 0;

  // Throws std::runtime_error for bytes that end where they must not.
  virtual AudioSamples Decode(std::span<const std::uint8_t> chunk) = 0;
};

class AudioEncodeStream {
 public:
  virtual ~AudioEncodeStream() = default;

  // So many samples of each channel Encode wants; the last call takes what is left.
  virtual std::size_t ChunkSamples() const = 0;
  virtual std::vector<std::uint8_t> Encode(const AudioSamples& samples) = 0;
};

// Names for --codec.
std::vector<std::string> DecodableAudioCodecs();
std::vector<std::string> EncodableAudioCodecs();

// Both throw std::runtime_error when the codec does not do so many channels or such blocks.
std::unique_ptr<AudioDecodeStream> MakeAudioDecodeStream(const AudioStreamOptions& options);
std::unique_ptr<AudioEncodeStream> MakeAudioEncodeStream(const AudioStreamOptions& options);

}  // namespace tools
