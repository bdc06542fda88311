// One received audio block in, PCM for a player out: the base of the decoders.
//
// Order of calls: Initialize, Decode and GetDecodedData for each block, Release (or the
// destructor). One thread at a time. The output buffer is the decoder's own; pointers into it live
// until the next Initialize or Release, their contents until the next Decode.
//
// No block length makes a decoder write past its buffer: a block whose output exceeds the capacity
// is refused (result 0, nothing decoded). How many bytes behind a block may be read is said by the
// two ADPCM decoders; the others read the block only.
#pragma once

#include <cstdint>
#include <memory>

#include "cms/runtime/api.h"

namespace cms {

struct CAudioDecoderConfig {
  std::int32_t codecId;            // a CMSCodecID, such as CMS_CODEC_PCM_MULAW
  std::uint32_t maximumBlockSize;  // input bytes
  std::uint32_t channelCount;
  std::uint32_t value;  // the player's sample rate; of the decoders CompressedSoundDecoder heeds it
  void* pointer;
};

}  // namespace cms

class CMS_API CAudioDecoderBase {
 public:
  // No buffer is larger: a configuration that asks for one is refused.
  static constexpr std::uint64_t kMaximumOutputSize = 256u << 20;

  CAudioDecoderBase() = default;
  CAudioDecoderBase(const CAudioDecoderBase&) = delete;
  CAudioDecoderBase& operator=(const CAudioDecoderBase&) = delete;
  virtual ~CAudioDecoderBase() = default;

  // Copies the configuration and allocates the output buffer: maximum block size x channel count x
  // the codec's factor. 1, or 0 for a null configuration or an impossible buffer.
  virtual int Initialize(const cms::CAudioDecoderConfig* config);

  // Decodes one block of `length` bytes: 1, or 0 when there is nothing to decode, the decoder is
  // not initialised or the output would not fit. Only the IMA decoder heeds the channel mode.
  virtual int Decode(const unsigned char* block, int length, unsigned int channelMode) = 0;

  // The last block's output and its length in bytes: 1; null, 0 and result 0 without a buffer.
  virtual int GetDecodedData(unsigned char** data, unsigned int* length);

  virtual unsigned char* GetOutputBuffer();

  // Reads what the block's header says of the decoder's start; 1 where blocks have no such header.
  virtual int GetIndexAndPrediction(const unsigned char* block, unsigned int channelMode);

  virtual int IsInitialized();

  // Frees the output buffer: 1. Initialize may follow.
  virtual int Release();

 protected:
  // Initialize of a codec whose output is `factor` times its input, with `slack` writable bytes
  // behind the capacity.
  int InitializeOutput(const cms::CAudioDecoderConfig* config, unsigned int factor,
                       unsigned int slack);

  // Whether a block is there and its output fits. If not, what was decoded before becomes zeros.
  bool TakeOrSilence(const unsigned char* block, int length, unsigned int factor);

  bool Fits(std::uint64_t outputLength) const;

  std::int32_t codecId_ = 0;
  std::uint32_t maximumBlockSize_ = 0;
  std::uint32_t channelCount_ = 0;
  std::uint32_t value_ = 0;
  void* pointer_ = nullptr;
  int initialized_ = 0;
  std::uint32_t outputLength_ = 0;    // bytes
  std::uint32_t outputCapacity_ = 0;  // bytes
  std::unique_ptr<unsigned char[]> output_;
};
