// The sound of a recording that is played.
#pragma once

#include <string>

#include "cms/audio/audio_player.h"
#include "cms/playback/playback_config.h"
#include "cms/runtime/critical.h"

namespace tools {

// Plays the blocks that a playback controller hands out, in whatever format they were recorded.
class PlaybackSpeaker {
 public:
  explicit PlaybackSpeaker(const std::string& device)  // empty: the default one
      : player_({}, device) {}

  // Makes the controller hand its sound to this speaker, which outlives the playing.
  void Join(_MULTI_SITE_PLAYBACK_CONFIG& config);

  // Opens the device; throws std::runtime_error when that cannot be done.
  void Start();
  void Stop() { player_.Stop(); }

 private:
  static void OnAudio(void* context, const cms::_MULTI_PB_AUDIO_BLOCK* block);

  cms::CCMSAudioPlayer player_;
  CMSCritical lock_;  // one channel's reader may still hand over while another one begins to
  tCMSAudioPlayerConfig format_ CMS_GUARDED_BY(lock_);  // of the last block
};

}  // namespace tools
