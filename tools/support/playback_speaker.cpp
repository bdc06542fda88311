#include "tools/support/playback_speaker.h"

#include <stdexcept>

namespace tools {

void PlaybackSpeaker::Start() {
  if (!player_.Start()) {
    throw std::runtime_error(player_.GetStatus().error +
                             " (orvanta audio devices lists what there is)");
  }
}

void PlaybackSpeaker::Join(_MULTI_SITE_PLAYBACK_CONFIG& config) {
  config.onAudio = &PlaybackSpeaker::OnAudio;
  config.context = this;
}

// On the reader thread of the channel whose sound is on.
void PlaybackSpeaker::OnAudio(void* context, const cms::_MULTI_PB_AUDIO_BLOCK* block) {
  auto* const self = static_cast<PlaybackSpeaker*>(context);
  const ScopeLock hold(self->lock_);
  tCMSAudioPlayerConfig& known = self->format_;
  const auto codec = static_cast<std::int32_t>(block->codecId);
  if (known.codecId != codec || known.sampleRate != block->sampleRate ||
      known.channels != block->channels ||
      known.maximumBlockSize < static_cast<std::uint32_t>(block->size)) {
    known.codecId = codec;
    known.sampleRate = block->sampleRate;
    known.channels = block->channels;
    known.maximumBlockSize = 65536;
    self->player_.SetFormat(known);
  }
  self->player_.Play(block->data, static_cast<int>(block->size));
}

}  // namespace tools
