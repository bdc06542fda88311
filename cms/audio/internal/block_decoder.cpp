#include "cms/audio/internal/block_decoder.h"

#include <algorithm>

#include "cms/audio/compressed_sound_decoder.h"
#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/audio/ms_adpcm_decoder.h"
#include "cms/audio/pcm_decoder.h"

namespace cms {
namespace {

constexpr std::size_t kReadBehind = 16;  // more than any decoder asks for

std::unique_ptr<CAudioDecoderBase> MakeDecoder(std::int32_t codecId) {
  switch (codecId) {
    case CMS_CODEC_PCM_S16LE:
    case CMS_CODEC_PCM_S16BE:
    case CMS_CODEC_PCM_U8:
      return std::make_unique<PCMDecoder>();
    case CMS_CODEC_PCM_MULAW:
      return std::make_unique<MULawDecoder>();
    case CMS_CODEC_PCM_ALAW:
      return std::make_unique<ALawDecoder>();
    case CMS_CODEC_ADPCM_IMA:
      return std::make_unique<IMAADPCMDecoder>();
    case CMS_CODEC_ADPCM_MS:
      return std::make_unique<MSADPCMDecoder>();
    default:
      return CompressedSoundDecoder::Knows(codecId) ? std::make_unique<CompressedSoundDecoder>()
                                                    : nullptr;
  }
}

}  // namespace

bool BlockDecoder::Knows(std::int32_t codecId) {
  return MakeDecoder(codecId) != nullptr;
}

BlockDecoder::BlockDecoder(const tCMSAudioPlayerConfig& config)
    : config_(config),
      decoder_(MakeDecoder(config.codecId)),
      block_(config.maximumBlockSize + kReadBehind) {
  const CAudioDecoderConfig decoderConfig{config.codecId, config.maximumBlockSize, config.channels,
                                          config.sampleRate, nullptr};
  decoder_->Initialize(&decoderConfig);
  if (config.codecId == CMS_CODEC_PCM_U8) {
    samples_.resize(config.maximumBlockSize);
  }
}

std::span<const std::int16_t> BlockDecoder::Decode(const unsigned char* block, int length) {
  if (block == nullptr || length < 1 ||
      static_cast<std::uint32_t>(length) > config_.maximumBlockSize) {
    return {};
  }
  std::copy_n(block, length, block_.begin());
  std::fill_n(block_.begin() + length, kReadBehind, static_cast<unsigned char>(0));
  const bool ima = config_.codecId == CMS_CODEC_ADPCM_IMA;
  const int headerSize = ima ? IMAADPCMDecoder::kHeaderSize : 0;
  unsigned char* data = nullptr;
  unsigned bytes = 0;
  if (decoder_->Decode(block_.data(), length - headerSize, config_.channelMode) == 0 ||
      decoder_->GetDecodedData(&data, &bytes) == 0) {
    return {};
  }
  if (config_.codecId == CMS_CODEC_ADPCM_MS) {
    // The last samples of its output are made of bytes behind the block.
    bytes -= std::min<unsigned>(bytes, MSADPCMDecoder::kBytesReadBehind * 4);
  }
  if (config_.codecId == CMS_CODEC_PCM_U8) {
    constexpr int kMiddle = 128;
    std::transform(data, data + bytes, samples_.begin(), [](unsigned char sample) {
      return static_cast<std::int16_t>((sample - kMiddle) * 256);
    });
    return std::span(samples_).first(bytes);
  }
  return {reinterpret_cast<const std::int16_t*>(data), bytes / sizeof(std::int16_t)};
}

}  // namespace cms
