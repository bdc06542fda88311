#include <algorithm>
#include <array>
#include <stdexcept>

#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/exports/audio_exports.h"
#include "tools/support/audio_streams.h"

namespace tools {
namespace {

class G711Stream : public AudioEncodeStream {
 public:
  explicit G711Stream(decltype(&g711_aEncoder) encode) : encode_(encode) {}

  std::size_t ChunkSamples() const override { return kChunkFrames; }

  std::vector<std::uint8_t> Encode(const AudioSamples& samples) override {
    std::vector<std::uint8_t> codes(samples.size());
    const int count = static_cast<int>(samples.size());
    encode_(samples.data(), count, codes.data(), count);
    return codes;
  }

 private:
  decltype(&g711_aEncoder) encode_;
};

class PcmStream : public AudioEncodeStream {
 public:
  enum class Form { kLittleEndian, kBigEndian, kEightBit };
  explicit PcmStream(Form form) : form_(form) {}

  std::size_t ChunkSamples() const override { return kChunkFrames; }

  std::vector<std::uint8_t> Encode(const AudioSamples& samples) override {
    std::vector<std::uint8_t> bytes;
    for (const std::int16_t sample : samples) {
      const auto low = static_cast<std::uint8_t>(sample & 0xFF);
      const auto high = static_cast<std::uint8_t>(sample >> 8);
      if (form_ == Form::kLittleEndian) {
        bytes.push_back(low);
      }
      bytes.push_back(high);
      if (form_ == Form::kBigEndian) {
        bytes.push_back(low);
      }
    }
    return bytes;
  }

 private:
  const Form form_;
};

// One channel of IMA ADPCM; the library's encoder takes each code into the state one call later.
class ImaEncoder {
 public:
  std::uint8_t Next(int sample) {
    code_ = EncodeADPCMC(sample, code_, &state_);
    return static_cast<std::uint8_t>(code_);
  }

  // Where decoding of the last code starts.
  const ADPCMState& StateBefore() const { return state_; }

 private:
  ADPCMState state_{};
  int code_ = 0;
};

class CodeEncodeStream : public AudioEncodeStream {
 public:
  std::size_t ChunkSamples() const override { return kChunkFrames; }

  std::vector<std::uint8_t> Encode(const AudioSamples& samples) override {
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < samples.size(); i += 2) {
      const unsigned low = encoder_.Next(samples[i]);
      // Two samples fill a byte: an odd last one stands twice.
      const unsigned high = encoder_.Next(samples[std::min(i + 1, samples.size() - 1)]);
      bytes.push_back(static_cast<std::uint8_t>(low | high << 4));
    }
    return bytes;
  }

 private:
  ImaEncoder encoder_;
};

// The devices' blocks, see cms/audio/ima_adpcm_decoder.h. The last one is filled with silence.
class ImaStream : public AudioEncodeStream {
 public:
  ImaStream(std::size_t channels, std::size_t blockSize)
      : channels_(channels), blockSize_(blockSize) {}

  std::size_t ChunkSamples() const override { return blockSize_ * 2 / channels_; }

  std::vector<std::uint8_t> Encode(const AudioSamples& given) override {
    constexpr std::size_t kGroupSamples = 16;
    AudioSamples samples = given;
    samples.resize((samples.size() + kGroupSamples - 1) / kGroupSamples * kGroupSamples);
    std::vector<std::uint8_t> block(IMAADPCMDecoder::kHeaderSize + samples.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const std::size_t group = IMAADPCMDecoder::kHeaderSize + i / kGroupSamples * 8;
      const std::size_t inGroup = i % kGroupSamples;
      // Mono is the second state; of stereo the even samples are, in the group's later half.
      const bool second = channels_ == 1 || i % 2 == 0;
      const std::size_t number = channels_ == 1 ? inGroup : inGroup / 2;
      const std::size_t at = group + number / 2 + (channels_ == 2 && second ? 4 : 0);
      ImaEncoder& encoder = encoders_[second ? 1 : 0];
      const unsigned code = encoder.Next(samples[i]);
      block[at] = static_cast<std::uint8_t>(block[at] | code << (number % 2 * 4));
      if (i < channels_) {
        WriteState(encoder.StateBefore(), block.data() + (second ? 60 : 56));
      }
    }
    return block;
  }

 private:
  static void WriteState(const ADPCMState& state, std::uint8_t* header) {
    header[0] = static_cast<std::uint8_t>(state.predictedSample & 0xFF);
    header[1] = static_cast<std::uint8_t>(state.predictedSample >> 8 & 0xFF);
    header[2] = static_cast<std::uint8_t>(state.stepIndex);
  }

  const std::size_t channels_;
  const std::size_t blockSize_;
  std::array<ImaEncoder, 2> encoders_;
};

}  // namespace

std::vector<std::string> EncodableAudioCodecs() {
  return {"alaw", "mulaw", "s16le", "s16be", "s8", "ima", "adpcm"};
}

std::unique_ptr<AudioEncodeStream> MakeAudioEncodeStream(const AudioStreamOptions& options) {
  const std::string& codec = options.codec;
  if (codec == "alaw") {
    return std::make_unique<G711Stream>(g711_aEncoder);
  }
  if (codec == "mulaw") {
    return std::make_unique<G711Stream>(g711_uEncoder);
  }
  if (codec == "s16le") {
    return std::make_unique<PcmStream>(PcmStream::Form::kLittleEndian);
  }
  if (codec == "s16be") {
    return std::make_unique<PcmStream>(PcmStream::Form::kBigEndian);
  }
  if (codec == "s8") {
    return std::make_unique<PcmStream>(PcmStream::Form::kEightBit);
  }
  if (codec == "ima") {
    const std::size_t size = options.blockSize > 0 ? options.blockSize : kUsualImaBlock;
    if (options.channels > 2 || size % IMAADPCMDecoder::kGroupSize != 0) {
      throw std::runtime_error("ima has one or two channels and blocks of a multiple of 8 bytes");
    }
    return std::make_unique<ImaStream>(static_cast<std::size_t>(options.channels), size);
  }
  if (options.channels != 1) {
    throw std::runtime_error(codec + " is mono");
  }
  return std::make_unique<CodeEncodeStream>();
}

}  // namespace tools
