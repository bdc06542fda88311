// ITU-T G.711: each byte becomes one 16-bit sample.
#pragma once

#include "cms/audio/audio_decoder_base.h"

// A missing or oversized block turns the last output into zeros; its length stays. The two decoders
// differ in their law only.
class CMS_API ALawDecoder : public CAudioDecoderBase {
 public:
  int Initialize(const cms::CAudioDecoderConfig* config) override;
  int Decode(const unsigned char* block, int length, unsigned int channelMode) override;
};

class CMS_API MULawDecoder : public CAudioDecoderBase {
 public:
  int Initialize(const cms::CAudioDecoderConfig* config) override;
  int Decode(const unsigned char* block, int length, unsigned int channelMode) override;
};
