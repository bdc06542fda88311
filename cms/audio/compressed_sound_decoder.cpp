#include "cms/audio/compressed_sound_decoder.h"

#include "cms/audio/internal/sound_codec.h"

namespace cms {
namespace {

constexpr unsigned kAacFactor = 16;  // a silent unit is a few bytes; blocks are not that small
constexpr unsigned kG726Factor = 8;  // 2 bits a sample

}  // namespace

CompressedSoundDecoder::CompressedSoundDecoder() : codec_(std::make_unique<SoundCodec>()) {}
CompressedSoundDecoder::~CompressedSoundDecoder() = default;

bool CompressedSoundDecoder::Knows(std::int32_t codecId) {
  return codecId == CMS_CODEC_AAC || G726BitsOf(codecId) != 0;
}

int CompressedSoundDecoder::Initialize(const CAudioDecoderConfig* config) {
  if (config == nullptr || !Knows(config->codecId) ||
      InitializeOutput(config, config->codecId == CMS_CODEC_AAC ? kAacFactor : kG726Factor, 0) ==
          0) {
    return 0;
  }
  if (!codec_->Open(static_cast<CMSCodecID>(config->codecId), config->value,
                    config->channelCount)) {
    Release();
    return 0;
  }
  return 1;
}

int CompressedSoundDecoder::Decode(const unsigned char* block, int length,
                                   unsigned int /*channelMode*/) {
  outputLength_ = 0;
  if (block == nullptr || length < 1 || initialized_ == 0) {
    return 0;
  }
  const auto written =
      codec_->Decode({block, static_cast<std::size_t>(length)}, {output_.get(), outputCapacity_});
  outputLength_ = static_cast<std::uint32_t>(written.value_or(0));
  return written ? 1 : 0;
}

int CompressedSoundDecoder::Release() {
  codec_->Close();
  return CAudioDecoderBase::Release();
}

}  // namespace cms
