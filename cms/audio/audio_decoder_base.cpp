#include "cms/audio/audio_decoder_base.h"

#include <algorithm>
#include <new>

int CAudioDecoderBase::Initialize(const cms::CAudioDecoderConfig* config) {
  return InitializeOutput(config, 1, 0);
}

int CAudioDecoderBase::InitializeOutput(const cms::CAudioDecoderConfig* config, unsigned int factor,
                                        unsigned int slack) {
  if (config == nullptr) {
    return 0;
  }
  Release();
  // 2^64 cannot be reached before the limit is: the first product is below it, the second checked.
  const std::uint64_t input = std::uint64_t{config->maximumBlockSize} * config->channelCount;
  if (input > kMaximumOutputSize / factor) {
    return 0;
  }
  const std::size_t capacity = static_cast<std::size_t>(input) * factor;
  output_.reset(new (std::nothrow) unsigned char[capacity + slack]());
  if (output_ == nullptr) {
    return 0;
  }
  codecId_ = config->codecId;
  maximumBlockSize_ = config->maximumBlockSize;
  channelCount_ = config->channelCount;
  value_ = config->value;
  pointer_ = config->pointer;
  outputCapacity_ = static_cast<std::uint32_t>(capacity);
  initialized_ = 1;
  return 1;
}

bool CAudioDecoderBase::Fits(std::uint64_t outputLength) const {
  return output_ != nullptr && outputLength <= outputCapacity_;
}

bool CAudioDecoderBase::TakeOrSilence(const unsigned char* block, int length, unsigned int factor) {
  if (block != nullptr && length > 0 &&
      Fits(std::uint64_t{factor} * static_cast<unsigned>(length))) {
    return true;
  }
  std::fill_n(output_.get(), output_ == nullptr ? 0 : outputLength_, static_cast<unsigned char>(0));
  return false;
}

int CAudioDecoderBase::GetDecodedData(unsigned char** data, unsigned int* length) {
  if (data != nullptr) {
    *data = output_.get();
  }
  if (length != nullptr) {
    *length = outputLength_;
  }
  return output_ != nullptr ? 1 : 0;
}

unsigned char* CAudioDecoderBase::GetOutputBuffer() {
  return output_.get();
}

int CAudioDecoderBase::GetIndexAndPrediction(const unsigned char* /*block*/,
                                             unsigned int /*channelMode*/) {
  return 1;
}

int CAudioDecoderBase::IsInitialized() {
  return initialized_;
}

int CAudioDecoderBase::Release() {
  output_.reset();
  outputLength_ = 0;
  outputCapacity_ = 0;
  initialized_ = 0;
  return 1;
}
