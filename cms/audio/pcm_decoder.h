// Uncompressed audio, brought into the byte order and sign that players expect.
#pragma once

#include "cms/audio/audio_decoder_base.h"

// Output as long as the input: 16-bit big-endian samples become little-endian (a last odd byte
// stays as it is), 8-bit signed samples become unsigned, everything else is copied. A missing or
// oversized block turns the last output into zeros; its length stays.
class CMS_API PCMDecoder : public CAudioDecoderBase {
 public:
  int Decode(const unsigned char* block, int length, unsigned int channelMode) override;
};
