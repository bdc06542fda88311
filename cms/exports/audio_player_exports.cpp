#include "cms/exports/audio_player_exports.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "cms/audio/audio_capture.h"
#include "cms/audio/audio_player.h"
#include "cms/audio/internal/alsa_device.h"
#include "cms/audio/internal/microphone.h"

namespace {

using Direction = cms::AlsaDevice::Direction;

struct Endpoint {
  std::unique_ptr<cms::CCMSAudioPlayer> player;  // one of the two
  std::unique_ptr<cms::Microphone> microphone;
};

Endpoint* Of(cms::CMSAudioPlayerHandle handle) {
  const bool invalid = handle == nullptr || ~reinterpret_cast<std::uintptr_t>(handle) == 0;
  return invalid ? nullptr : static_cast<Endpoint*>(handle);
}

cms::CCMSAudioPlayer* PlayerOf(cms::CMSAudioPlayerHandle handle) {
  Endpoint* const endpoint = Of(handle);
  return endpoint != nullptr ? endpoint->player.get() : nullptr;
}

template <std::size_t Size>
void CopyText(char (&to)[Size], const std::string& from) {
  const std::size_t length = std::min(from.size(), Size - 1);
  std::memcpy(to, from.data(), length);
  to[length] = '\0';
}

}  // namespace

cms::CMSAudioPlayerHandle CreateCMSAudioPlayer(const tCMSAudioPlayerConfig* config, int kind,
                                               const char* device) {
  if (config == nullptr) {
    return nullptr;
  }
  const std::string name = device != nullptr ? device : "";
  auto endpoint = std::make_unique<Endpoint>();
  if (kind == cms::kCMSAudioOutput && cms::CCMSAudioPlayer::IsUsable(*config)) {
    endpoint->player = std::make_unique<cms::CCMSAudioPlayer>(*config, name);
  } else if (kind == cms::kCMSAudioInput && cms::CCMSAudioCapture::IsUsable(*config)) {
    endpoint->microphone = std::make_unique<cms::Microphone>(*config, name);
  } else {
    return nullptr;
  }
  return endpoint.release();
}

void DestroyAudioPlayer(cms::CMSAudioPlayerHandle player) {
  delete Of(player);
}

int StartAudioPlayer(cms::CMSAudioPlayerHandle player) {
  Endpoint* const endpoint = Of(player);
  if (endpoint == nullptr) {
    return 0;
  }
  return (endpoint->player ? endpoint->player->Start() : endpoint->microphone->Start()) ? 1 : 0;
}

int StopAudioPlayer(cms::CMSAudioPlayerHandle player) {
  Endpoint* const endpoint = Of(player);
  if (endpoint == nullptr) {
    return 0;
  }
  if (endpoint->microphone) {
    return endpoint->microphone->Stop() ? 1 : 0;
  }
  const bool started = endpoint->player->GetStatus().started;
  endpoint->player->Stop();
  return started ? 1 : 0;
}

int PlayAudio(cms::CMSAudioPlayerHandle player, const unsigned char* block, int length) {
  cms::CCMSAudioPlayer* const to = PlayerOf(player);
  return to != nullptr && to->Play(block, length) ? 1 : 0;
}

int GetEncodeAudioData(cms::CMSAudioPlayerHandle microphone, unsigned char* buffer, int size,
                       unsigned timeoutMs) {
  Endpoint* const endpoint = Of(microphone);
  if (endpoint == nullptr || !endpoint->microphone || buffer == nullptr) {
    return 0;
  }
  return endpoint->microphone->Fetch(buffer, size, timeoutMs);
}

int GetAudioDeviceInfoByAudioType(int kind, unsigned index, cms::CMSAudioDeviceInfo* info) {
  if (info == nullptr || (kind != cms::kCMSAudioOutput && kind != cms::kCMSAudioInput)) {
    return 0;
  }
  const auto devices =
      cms::ListAlsaDevices(kind == cms::kCMSAudioOutput ? Direction::kPlay : Direction::kCapture);
  if (index >= devices.size()) {
    return 0;
  }
  CopyText(info->name, devices[index].name);
  CopyText(info->description, devices[index].description);
  return 1;
}

int GetAudioCodecIDByAudioType(int audioType, int* codecId) {
  if (codecId == nullptr) {
    return 0;
  }
  constexpr struct {
    int type;
    cms::CMSCodecID codec;
  } kTags[] = {{1, cms::CMS_CODEC_PCM_S16LE},
               {2, cms::CMS_CODEC_ADPCM_MS},
               {6, cms::CMS_CODEC_PCM_ALAW},
               {7, cms::CMS_CODEC_PCM_MULAW},
               {0x11, cms::CMS_CODEC_ADPCM_IMA}};
  for (const auto& tag : kTags) {
    if (audioType == tag.type || audioType == tag.codec) {
      *codecId = tag.codec;
      return 1;
    }
  }
  const bool pcm = audioType == cms::CMS_CODEC_PCM_S16BE || audioType == cms::CMS_CODEC_PCM_U8;
  *codecId = pcm ? audioType : cms::CMS_CODEC_NONE;
  return pcm ? 1 : 0;
}

int GetIndexAndPrediction(cms::CMSAudioPlayerHandle player, const unsigned char* block,
                          unsigned channelMode) {
  cms::CCMSAudioPlayer* const of = PlayerOf(player);
  return of != nullptr ? of->GetIndexAndPrediction(block, channelMode) : 0;
}
