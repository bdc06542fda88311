// CCMSAudioPlayer: camera audio, block by block, to a sound device.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cms/live/media/audio_endpoint.h"
#include "cms/runtime/api.h"

namespace cms {

struct CMSAudioPlayerStatus {
  bool started = false;
  bool deviceOpen = false;
  std::uint64_t blocks = 0;         // decoded
  std::uint64_t refusedBlocks = 0;  // longer than the maximum, not to be decoded, or not started
  std::uint64_t playedFrames = 0;   // given to the device; a frame is a sample of each channel
  std::uint64_t skippedFrames = 0;  // left out because too much had come together
  std::uint64_t underruns = 0;      // the device ran dry
  std::uint32_t delayMs = 0;        // queued here and in the device
  std::string error;                // why no device is open, empty while all is well
};

// Blocks are decoded on the caller's thread and queued; a thread of the player's own feeds the
// device and sleeps while there is nothing to do. The delay is bounded: see tCMSAudioPlayerConfig's
// delayMs, which the player holds against early and late blocks and against cameras and cards whose
// clocks differ; a backlog of more than 300 ms beyond it is cut.
//
// A device that goes away is opened again every two seconds for as long as blocks come; sound is
// dropped meanwhile. Play allocates nothing.
//
// Threads: Play from one thread at a time, everything else from any.
class CMS_API CCMSAudioPlayer final : public cms::AudioPlayer {
 public:
  // `device` is a name of the system's ALSA configuration ("default", "plughw:1,0", "pulse");
  // empty: the one that config.device counts, or the default one.
  explicit CCMSAudioPlayer(const tCMSAudioPlayerConfig& config, std::string device = {});
  ~CCMSAudioPlayer() override;

  // Whether the codec, the rate (2,000 to 384,000), the channels (1 or 2) and the sizes are usable.
  static bool IsUsable(const tCMSAudioPlayerConfig& config);

  // False when the configuration or the device cannot be used: see GetStatus().error. Starting a
  // started player changes nothing.
  bool Start() override;
  // What the device has got is heard, what is queued is not. Returns within the device's buffer
  // time, at most a second.
  void Stop() override;

  // Takes effect with the next block; false when unusable, and nothing changes.
  bool SetFormat(const tCMSAudioPlayerConfig& config) override;

  // `length` bytes, IMA ADPCM with its header. False when refused.
  bool Play(const unsigned char* block, int length) override;

  // See CAudioDecoderBase::GetIndexAndPrediction, of the present format's decoder.
  int GetIndexAndPrediction(const unsigned char* block, unsigned channelMode);

  CMSAudioPlayerStatus GetStatus() const;

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};

// A player of the device that the configuration counts; nullptr when the configuration is unusable.
CMS_API std::unique_ptr<AudioPlayer> MakeAudioPlayer(const tCMSAudioPlayerConfig& config);

}  // namespace cms
