// The sound of a site: what it sends goes to a player, what a microphone hears goes to it.
#include <cstdint>

#include "cms/audio/audio_capture.h"
#include "cms/live/client_base.h"

namespace {

bool IsPlayer(const cms::AudioPlayer* player) {
  return player != nullptr && ~reinterpret_cast<std::uintptr_t>(player) != 0;
}

}  // namespace

void CMSClientBase::OnDecodeAudioFrame(void* data, int size, unsigned channel) {
  const auto state = Channel(channel);
  if (state == nullptr || state->IsAudioEnable() == 0 || state->IsPlayAudio() == 0) {
    return;
  }
  ScopeLock lock(audioLock_);
  if (IsPlayer(audioPlayer_)) {
    audioPlayer_->Play(static_cast<const unsigned char*>(data), size);
  }
}

void CMSClientBase::SetAudioPlayer(cms::AudioPlayer* player) {
  ScopeLock lock(audioLock_);
  audioPlayer_ = player;
  if (IsPlayer(player) && playedFormat_.codecId != CMS_CODEC_NONE) {
    player->SetFormat(playedFormat_);
  }
}

void CMSClientBase::SetAudioFormat(const tCMSAudioPlayerConfig& config) {
  ScopeLock lock(audioLock_);
  playedFormat_ = config;
  if (IsPlayer(audioPlayer_) && config.codecId != CMS_CODEC_NONE) {
    audioPlayer_->SetFormat(config);
  }
}

int CMSClientBase::GetAudioFormat(tCMSAudioPlayerConfig* config) const {
  ScopeLock lock(audioLock_);
  *config = playedFormat_;
  return playedFormat_.codecId != CMS_CODEC_NONE ? 1 : 0;
}

int CMSClientBase::OnStartAudioRecorder(const tCMSAudioPlayerConfig& config) {
  ScopeLock lock(recorderLock_);
  if (audioCapture_) {
    return 0;
  }
  audioCapture_ = cms::MakeAudioCapture(config, [this](const unsigned char* block, int length) {
    SendAudioData(const_cast<unsigned char*>(block), length);
  });
  return audioCapture_ ? 1 : 0;
}

void CMSClientBase::OnStopAudioRecorder() {
  ScopeLock lock(recorderLock_);
  audioCapture_.reset();
}

int CMSClientBase::IsStartingAudioRecorder() const {
  ScopeLock lock(recorderLock_);
  return audioCapture_ ? 1 : 0;
}
