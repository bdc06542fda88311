// AAC and G.726, decoded by the codec library.
#pragma once

#include <memory>

#include "cms/audio/audio_decoder_base.h"

namespace cms {

class SoundCodec;

// The codec is that of the configuration: CMS_CODEC_AAC or one of CMS_CODEC_G726_16 to
// CMS_CODEC_G726_AAL2_40. A block of AAC is one access unit behind its ADTS header, so each decodes
// by itself; a block of G.726 goes on where the one before it ended.
//
// Output: 16-bit samples, interleaved, with the configured channels, at the rate that the
// configuration's `value` says (0: the stream's own), whatever the stream says of itself; AAC with
// SBR or PS is brought there. No bytes behind a block are read. Of AAC the capacity is 16 x the
// maximum block size for each channel, of G.726 8 x. A refused block leaves an output of no length.
class CMS_API CompressedSoundDecoder : public CAudioDecoderBase {
 public:
  CompressedSoundDecoder();
  ~CompressedSoundDecoder() override;

  // Whether it is a codec of this decoder.
  static bool Knows(std::int32_t codecId);

  // 0 also for a codec that is none of these, or that the installed codec library lacks.
  int Initialize(const CAudioDecoderConfig* config) override;
  int Decode(const unsigned char* block, int length, unsigned int channelMode) override;
  int Release() override;

 private:
  std::unique_ptr<SoundCodec> codec_;
};

}  // namespace cms
