// The sound of a site: what it sends goes to a player, what a microphone hears goes to it.
#include <cstdint>

#include "cms/live/internal/client_state.h"

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
  ScopeLock lock(state_->audioLock);
  if (IsPlayer(state_->audioPlayer)) {
    state_->audioPlayer->Play(static_cast<const unsigned char*>(data), size);
  }
}

void CMSClientBase::SetAudioPlayer(cms::AudioPlayer* player) {
  ScopeLock lock(state_->audioLock);
  state_->audioPlayer = player;
  if (IsPlayer(player) && state_->playedFormat.codecId != cms::CMS_CODEC_NONE) {
    player->SetFormat(state_->playedFormat);
  }
}

void CMSClientBase::SetAudioFormat(const tCMSAudioPlayerConfig& config) {
  ScopeLock lock(state_->audioLock);
  state_->playedFormat = config;
  if (IsPlayer(state_->audioPlayer) && config.codecId != cms::CMS_CODEC_NONE) {
    state_->audioPlayer->SetFormat(config);
  }
}

int CMSClientBase::GetAudioFormat(tCMSAudioPlayerConfig* config) const {
  ScopeLock lock(state_->audioLock);
  *config = state_->playedFormat;
  return state_->playedFormat.codecId != cms::CMS_CODEC_NONE ? 1 : 0;
}

int CMSClientBase::OnStartAudioRecorder(const tCMSAudioPlayerConfig& config) {
  ScopeLock lock(state_->recorderLock);
  if (state_->audioCapture) {
    return 0;
  }
  state_->audioCapture =
      cms::MakeAudioCapture(config, [this](const unsigned char* block, int length) {
        SendAudioData(const_cast<unsigned char*>(block), length);
      });
  return state_->audioCapture ? 1 : 0;
}

void CMSClientBase::OnStopAudioRecorder() {
  ScopeLock lock(state_->recorderLock);
  state_->audioCapture.reset();
}

int CMSClientBase::IsStartingAudioRecorder() const {
  ScopeLock lock(state_->recorderLock);
  return state_->audioCapture ? 1 : 0;
}
