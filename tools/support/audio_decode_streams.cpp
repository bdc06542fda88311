#include <cstring>
#include <stdexcept>

#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/audio/ms_adpcm_decoder.h"
#include "cms/audio/pcm_decoder.h"
#include "cms/exports/audio_exports.h"
#include "cms/live/media/codec_id.h"
#include "tools/support/audio_streams.h"

namespace tools {
namespace {

constexpr std::size_t kUsualMsBlock = 256;
constexpr std::size_t kMsHeader = 7;

// Whole blocks through one of the library's decoder classes.
class BlockStream : public AudioDecodeStream {
 public:
  struct Layout {
    std::size_t dataSize;         // of a block, the header that Decode does not count left out
    std::size_t headerSize = 0;   // of that header
    std::size_t minimumSize = 1;  // of a block's data
    std::size_t frameSize = 1;    // bytes that belong together
    std::size_t readBehind = 0;   // bytes that the decoder may read behind a block
    std::size_t extraOutput = 0;  // bytes of the output that are made of those
  };

  BlockStream(std::unique_ptr<CAudioDecoderBase> decoder, const AudioStreamOptions& options,
              int codecId, const Layout& layout)
      : decoder_(std::move(decoder)), layout_(layout), channelMode_(options.channelMode) {
    const cms::CAudioDecoderConfig config{codecId, static_cast<std::uint32_t>(layout.dataSize),
                                          static_cast<std::uint32_t>(options.channels), 0, nullptr};
    if (decoder_->Initialize(&config) != 1) {
      throw std::runtime_error("blocks of " + std::to_string(layout.dataSize) +
                               " bytes are too large");
    }
  }

  std::size_t ChunkSize() const override { return layout_.headerSize + layout_.dataSize; }

  AudioSamples Decode(std::span<const std::uint8_t> chunk) override {
    if (chunk.size() < layout_.headerSize + layout_.minimumSize ||
        (chunk.size() - layout_.headerSize) % layout_.frameSize != 0) {
      throw std::runtime_error("the input ends inside a block or sample");
    }
    block_.assign(chunk.begin(), chunk.end());
    block_.resize(chunk.size() + layout_.readBehind);
    unsigned char* data = nullptr;
    unsigned int length = 0;
    if (decoder_->Decode(block_.data(), static_cast<int>(chunk.size() - layout_.headerSize),
                         channelMode_) != 1 ||
        decoder_->GetDecodedData(&data, &length) != 1) {
      throw std::runtime_error("a block could not be decoded");
    }
    return Samples({data, length - layout_.extraOutput});
  }

 protected:
  virtual AudioSamples Samples(std::span<const std::uint8_t> output) const {
    AudioSamples samples(output.size() / 2);
    std::memcpy(samples.data(), output.data(), samples.size() * 2);
    return samples;
  }

 private:
  const std::unique_ptr<CAudioDecoderBase> decoder_;
  const Layout layout_;
  const unsigned channelMode_;
  std::vector<std::uint8_t> block_;
};

// The decoder's 8-bit output, unsigned, as 16 bits.
class EightBitStream : public BlockStream {
 public:
  using BlockStream::BlockStream;

 protected:
  AudioSamples Samples(std::span<const std::uint8_t> output) const override {
    AudioSamples samples;
    for (const std::uint8_t each : output) {
      samples.push_back(static_cast<std::int16_t>((each - 128) * 256));
    }
    return samples;
  }
};

// IMA ADPCM without blocks, low nibble first.
class CodeStream : public AudioDecodeStream {
 public:
  std::size_t ChunkSize() const override { return kChunkFrames; }

  AudioSamples Decode(std::span<const std::uint8_t> chunk) override {
    AudioSamples samples;
    for (const std::uint8_t each : chunk) {
      samples.push_back(static_cast<std::int16_t>(DecodeADPCMC(each & 0xF, &state_)));
      samples.push_back(static_cast<std::int16_t>(DecodeADPCMC(each >> 4, &state_)));
    }
    return samples;
  }

 private:
  ADPCMState state_{};
};

// The devices' 8-bit ADPCM; of its doubled samples each is heard twice, as there.
class EightBitCodeStream : public AudioDecodeStream {
 public:
  std::size_t ChunkSize() const override { return kChunkFrames; }

  AudioSamples Decode(std::span<const std::uint8_t> chunk) override {
    std::vector<std::uint8_t> output(chunk.size() * 4);
    adpcm_decoder(chunk.data(), output.data(), static_cast<int>(chunk.size()), &index_,
                  &predictor_);
    AudioSamples samples;
    for (const std::uint8_t each : output) {
      samples.push_back(static_cast<std::int16_t>(static_cast<std::int8_t>(each) * 256));
    }
    return samples;
  }

 private:
  signed char index_ = 0;
  short predictor_ = 0;
};

template <typename Decoder, typename Stream = BlockStream>
std::unique_ptr<AudioDecodeStream> Sampled(const AudioStreamOptions& options, int codecId,
                                           std::size_t sampleSize) {
  const std::size_t frameSize = sampleSize * static_cast<std::size_t>(options.channels);
  return std::make_unique<Stream>(
      std::make_unique<Decoder>(), options, codecId,
      BlockStream::Layout{.dataSize = kChunkFrames * frameSize, .frameSize = frameSize});
}

std::unique_ptr<AudioDecodeStream> Ima(const AudioStreamOptions& options) {
  const std::size_t size = options.blockSize > 0 ? options.blockSize : kUsualImaBlock;
  if (options.channels > 2 || (options.channels == 2 && size % IMAADPCMDecoder::kGroupSize != 0)) {
    throw std::runtime_error("ima is mono, or stereo in blocks of a multiple of 8 bytes");
  }
  return std::make_unique<BlockStream>(
      std::make_unique<IMAADPCMDecoder>(), options, cms::CMS_CODEC_NONE,
      BlockStream::Layout{
          .dataSize = size,
          .headerSize = IMAADPCMDecoder::kHeaderSize,
          .frameSize = options.channels == 2 ? std::size_t{IMAADPCMDecoder::kGroupSize} : 1});
}

std::unique_ptr<AudioDecodeStream> Ms(const AudioStreamOptions& options) {
  const std::size_t size = options.blockSize > 0 ? options.blockSize : kUsualMsBlock;
  if (size < kMsHeader) {
    throw std::runtime_error("blocks of ms have at least 7 bytes");
  }
  return std::make_unique<BlockStream>(
      std::make_unique<MSADPCMDecoder>(), options, cms::CMS_CODEC_NONE,
      BlockStream::Layout{.dataSize = size,
                          .minimumSize = kMsHeader,
                          .readBehind = MSADPCMDecoder::kBytesReadBehind,
                          .extraOutput = 4 * MSADPCMDecoder::kBytesReadBehind});
}

}  // namespace

std::vector<std::string> DecodableAudioCodecs() {
  return {"alaw", "mulaw", "s16le", "s16be", "s8", "ima", "ms", "adpcm", "adpcm8"};
}

std::unique_ptr<AudioDecodeStream> MakeAudioDecodeStream(const AudioStreamOptions& options) {
  const std::string& codec = options.codec;
  if (codec == "alaw") {
    return Sampled<ALawDecoder>(options, cms::CMS_CODEC_PCM_ALAW, 1);
  }
  if (codec == "mulaw") {
    return Sampled<MULawDecoder>(options, cms::CMS_CODEC_PCM_MULAW, 1);
  }
  if (codec == "s16le") {
    return Sampled<PCMDecoder>(options, cms::CMS_CODEC_PCM_S16LE, 2);
  }
  if (codec == "s16be") {
    return Sampled<PCMDecoder>(options, cms::CMS_CODEC_PCM_S16BE, 2);
  }
  if (codec == "s8") {
    return Sampled<PCMDecoder, EightBitStream>(options, cms::CMS_CODEC_PCM_U8, 1);
  }
  if (codec == "ima") {
    return Ima(options);
  }
  if (options.channels != 1) {
    throw std::runtime_error(codec + " is mono");
  }
  if (codec == "ms") {
    return Ms(options);
  }
  if (codec == "adpcm") {
    return std::make_unique<CodeStream>();
  }
  return std::make_unique<EightBitCodeStream>();
}

}  // namespace tools
