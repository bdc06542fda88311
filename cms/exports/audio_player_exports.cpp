#include "cms/exports/audio_player_exports.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/audio/audio_capture.h"
#include "cms/audio/audio_player.h"
#include "cms/audio/internal/alsa_device.h"

namespace {

using Direction = cms::AlsaDevice::Direction;

// A microphone whose blocks wait for GetEncodeAudioData.
class Microphone {
 public:
  Microphone(const tCMSAudioPlayerConfig& config, std::string device)
      : config_(config), device_(std::move(device)) {}

  bool Start() {
    if (!capture_) {
      try {
        capture_ = std::make_unique<CCMSAudioCapture>(
            config_, [this](const unsigned char* block, int length) { Keep(block, length); },
            device_);
      } catch (const std::runtime_error&) {
        return false;
      }
    }
    return true;
  }

  bool Stop() {
    const bool started = capture_ != nullptr;
    capture_.reset();
    blocks_.clear();
    return started;
  }

  int Fetch(unsigned char* buffer, int size, unsigned timeoutMs) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                      [this] { return !blocks_.empty(); });
    if (blocks_.empty()) {
      return 0;
    }
    const std::vector<unsigned char>& block = blocks_.front();
    const int length = static_cast<int>(block.size());
    if (length > size) {
      return -1;
    }
    std::copy(block.begin(), block.end(), buffer);
    blocks_.pop_front();
    return length;
  }

 private:
  static constexpr std::size_t kKept = 100;  // blocks: two seconds

  void Keep(const unsigned char* block, int length) {
    const std::lock_guard lock(mutex_);
    if (blocks_.size() == kKept) {
      blocks_.pop_front();
    }
    blocks_.emplace_back(block, block + length);
    arrived_.notify_one();
  }

  const tCMSAudioPlayerConfig config_;
  const std::string device_;
  std::mutex mutex_;  // the blocks
  std::condition_variable arrived_;
  std::deque<std::vector<unsigned char>> blocks_;
  std::unique_ptr<CCMSAudioCapture> capture_;
};

struct Endpoint {
  std::unique_ptr<CCMSAudioPlayer> player;  // one of the two
  std::unique_ptr<Microphone> microphone;
};

Endpoint* Of(CMSAudioPlayerHandle handle) {
  const bool invalid = handle == nullptr || ~reinterpret_cast<std::uintptr_t>(handle) == 0;
  return invalid ? nullptr : static_cast<Endpoint*>(handle);
}

CCMSAudioPlayer* PlayerOf(CMSAudioPlayerHandle handle) {
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

CMSAudioPlayerHandle CreateCMSAudioPlayer(const tCMSAudioPlayerConfig* config, int kind,
                                          const char* device) {
  if (config == nullptr) {
    return nullptr;
  }
  const std::string name = device != nullptr ? device : "";
  auto endpoint = std::make_unique<Endpoint>();
  if (kind == kCMSAudioOutput && CCMSAudioPlayer::IsUsable(*config)) {
    endpoint->player = std::make_unique<CCMSAudioPlayer>(*config, name);
  } else if (kind == kCMSAudioInput && CCMSAudioCapture::IsUsable(*config)) {
    endpoint->microphone = std::make_unique<Microphone>(*config, name);
  } else {
    return nullptr;
  }
  return endpoint.release();
}

void DestroyAudioPlayer(CMSAudioPlayerHandle player) {
  delete Of(player);
}

int StartAudioPlayer(CMSAudioPlayerHandle player) {
  Endpoint* const endpoint = Of(player);
  if (endpoint == nullptr) {
    return 0;
  }
  return (endpoint->player ? endpoint->player->Start() : endpoint->microphone->Start()) ? 1 : 0;
}

int StopAudioPlayer(CMSAudioPlayerHandle player) {
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

int PlayAudio(CMSAudioPlayerHandle player, const unsigned char* block, int length) {
  CCMSAudioPlayer* const to = PlayerOf(player);
  return to != nullptr && to->Play(block, length) ? 1 : 0;
}

int GetEncodeAudioData(CMSAudioPlayerHandle microphone, unsigned char* buffer, int size,
                       unsigned timeoutMs) {
  Endpoint* const endpoint = Of(microphone);
  if (endpoint == nullptr || !endpoint->microphone || buffer == nullptr) {
    return 0;
  }
  return endpoint->microphone->Fetch(buffer, size, timeoutMs);
}

int GetAudioDeviceInfoByAudioType(int kind, unsigned index, CMSAudioDeviceInfo* info) {
  if (info == nullptr || (kind != kCMSAudioOutput && kind != kCMSAudioInput)) {
    return 0;
  }
  const auto devices =
      cms::ListAlsaDevices(kind == kCMSAudioOutput ? Direction::kPlay : Direction::kCapture);
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
    CMSCodecID codec;
  } kTags[] = {{1, CMS_CODEC_PCM_S16LE},
               {2, CMS_CODEC_ADPCM_MS},
               {6, CMS_CODEC_PCM_ALAW},
               {7, CMS_CODEC_PCM_MULAW},
               {0x11, CMS_CODEC_ADPCM_IMA}};
  for (const auto& tag : kTags) {
    if (audioType == tag.type || audioType == tag.codec) {
      *codecId = tag.codec;
      return 1;
    }
  }
  const bool pcm = audioType == CMS_CODEC_PCM_S16BE || audioType == CMS_CODEC_PCM_U8;
  *codecId = pcm ? audioType : CMS_CODEC_NONE;
  return pcm ? 1 : 0;
}

int GetIndexAndPrediction(CMSAudioPlayerHandle player, const unsigned char* block,
                          unsigned channelMode) {
  CCMSAudioPlayer* const of = PlayerOf(player);
  return of != nullptr ? of->GetIndexAndPrediction(block, channelMode) : 0;
}
