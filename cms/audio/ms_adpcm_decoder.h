// Microsoft ADPCM, mono, one block at a time.
#pragma once

#include "cms/audio/audio_decoder_base.h"

// A block is a byte with the coefficient set, the 16-bit delta, the two first samples, then two
// samples a byte, high nibble first. Output length is 4 x the block's length, which is twelve
// samples more than the block holds:
//
// The caller owes kBytesReadBehind readable bytes behind each block. The last twelve samples are
// made of them; a player that wants none of these plays 24 bytes less.
//
// The two samples of the header come out in their stored order, newer one first. The delta stays
// below 2^31 / 768, which no real sound reaches. A refused block leaves an output of no length.
class CMS_API MSADPCMDecoder : public CAudioDecoderBase {
 public:
  static constexpr int kBytesReadBehind = 6;

  int Initialize(const cms::CAudioDecoderConfig* config) override;
  int Decode(const unsigned char* block, int length, unsigned int channelMode) override;
};
