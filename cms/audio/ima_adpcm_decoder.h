// IMA ADPCM in the block layout of the devices, mono or stereo.
#pragma once

#include "cms/audio/audio_decoder_base.h"

// A block is a header of kHeaderSize bytes, which holds the states of two streams at its end, and
// data in groups of kGroupSize bytes, 16 samples each. The length given to Decode counts the data
// bytes only. Mono data, low nibble first, belongs to the second state. In stereo (channel count 2)
// each group's bytes 4-7 are the even output samples (second state), bytes 0-3 the odd ones
// (first).
//
// A last group that is not whole is decoded whole: in mono with zeros for what it lacks; in stereo
// its samples lie apart, so the caller owes readable bytes up to the end of the group. The output
// length is 4 x the data length all the same; the buffer has room for the rest, and each block
// starts from its own header.
//
// Channel modes: 0 both streams, 1 only the even samples' stream, 2 only the odd samples' one; any
// other mode none. A stream left out starts from zero and is filled with a value that fades out.
// A step index above 88 counts as 88. A refused block leaves an output of no length.
class CMS_API IMAADPCMDecoder : public CAudioDecoderBase {
 public:
  static constexpr int kHeaderSize = 64;
  static constexpr int kGroupSize = 8;

  int Initialize(const cms::CAudioDecoderConfig* config) override;
  int Decode(const unsigned char* block, int dataLength, unsigned int channelMode) override;

  // Sets both states from the header: 1, or 0 (both zero) for a null block or another channel mode.
  int GetIndexAndPrediction(const unsigned char* block, unsigned int channelMode) override;

 private:
  std::int32_t firstStepIndex_ = 0;
  std::int32_t secondStepIndex_ = 0;
  std::int32_t firstPredictor_ = 0;
  std::int32_t secondPredictor_ = 0;
};
