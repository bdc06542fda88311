// The sound of a recording that is played.
#pragma once

#include <string>

#include "cms/audio/audio_player.h"
#include "cms/playback/playback_config.h"

namespace tools {

// Plays the blocks that a playback controller hands out, in whatever format they were recorded. The
// constructor opens the device: it throws std::runtime_error when that cannot be done.
class PlaybackSpeaker {
 public:
  explicit PlaybackSpeaker(const std::string& device);  // empty: the default one

  // Makes the controller hand its sound to this speaker, which outlives the playing.
  void Join(_MULTI_SITE_PLAYBACK_CONFIG& config);

 private:
  static void OnAudio(void* context, const _MULTI_PB_AUDIO_BLOCK* block);

  CCMSAudioPlayer player_;
  tCMSAudioPlayerConfig format_;  // of the last block
};

}  // namespace tools
