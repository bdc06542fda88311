// Sound as a stream of blocks: something that plays them, something that captures them.
#pragma once

#include <cstdint>
#include <functional>

#include "cms/live/media/codec_id.h"
#include "cms/runtime/api.h"

// The audio settings of a player or a capture.
struct tCMSAudioPlayerConfig {
  std::int32_t codecId =
      cms::CMS_CODEC_PCM_MULAW;           // a CMSCodecID; of the blocks played or captured
  std::uint32_t sampleRate = 8000;        // samples a second of each channel
  std::uint32_t channels = 1;             // 1 or 2, interleaved
  std::uint32_t maximumBlockSize = 4096;  // bytes of a block; a capture makes 20 ms blocks
  std::uint32_t channelMode = 0;          // of IMA ADPCM, see IMAADPCMDecoder
  std::uint32_t delayMs = 120;            // what a player keeps ready, 20 to 1000
  std::int32_t device = -1;               // as GetAudioDeviceInfoByAudioType counts; -1: default
};
static_assert(sizeof(tCMSAudioPlayerConfig) == 28);

namespace cms {

// A sound output that blocks are handed to as they arrive.
class CMS_API AudioPlayer {
 public:
  virtual ~AudioPlayer() = default;

  virtual bool Start() = 0;  // false when the device cannot be opened
  virtual void Stop() = 0;

  // What the following blocks are. Blocks handed over before keep their own format.
  virtual bool SetFormat(const tCMSAudioPlayerConfig& config) = 0;

  // Queues one block and returns at once. False when it was dropped.
  virtual bool Play(const unsigned char* block, int length) = 0;
};

// A microphone: from its making until its destruction it hands encoded blocks to its callback, on a
// thread of its own.
class CMS_API AudioCapture {
 public:
  using OnBlock = std::function<void(const unsigned char* block, int length)>;

  virtual ~AudioCapture() = default;
};

}  // namespace cms
