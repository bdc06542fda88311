#include "cms/exports/audio_player_exports.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/audio/audio_capture.h"
#include "cms/audio/audio_player.h"
#include "cms/audio/internal/alsa_device.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace {

using Direction = cms::AlsaDevice::Direction;

// A microphone whose blocks wait for GetEncodeAudioData, in a ring.
class Microphone {
 public:
  Microphone(const tCMSAudioPlayerConfig& config, std::string device)
      : config_(config),
        device_(std::move(device)),
        blockBytes_(CCMSAudioCapture::BlockBytes(config)),
        ring_(kKept * blockBytes_) {}

  bool Start() {
    const ScopeLock life(lifeLock_);
    if (!capture_) {
      try {
        capture_ = std::make_unique<CCMSAudioCapture>(
            config_, [this](const unsigned char* block, int) { Keep(block); }, device_);
      } catch (const std::runtime_error&) {
        return false;
      }
    }
    return true;
  }

  bool Stop() {
    const ScopeLock life(lifeLock_);
    const bool started = capture_ != nullptr;
    capture_.reset();
    const ScopeLock blocks(blocksLock_);
    count_ = 0;
    return started;
  }

  int Fetch(unsigned char* buffer, int size, unsigned timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const ScopeLock blocks(blocksLock_);
    while (count_ == 0) {
      if (arrived_.wait_until(blocksLock_, end) == std::cv_status::timeout && count_ == 0) {
        return 0;
      }
    }
    if (size < 0 || static_cast<std::size_t>(size) < blockBytes_) {
      return -1;
    }
    std::copy_n(Slot(first_), blockBytes_, buffer);
    DropFirst();
    return static_cast<int>(blockBytes_);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kKept = 100;  // blocks: two seconds

  void Keep(const unsigned char* block) {
    const ScopeLock blocks(blocksLock_);
    if (count_ == kKept) {
      DropFirst();
    }
    std::copy_n(block, blockBytes_, Slot((first_ + count_) % kKept));
    ++count_;
    arrived_.notify_one();
  }

  unsigned char* Slot(std::size_t number) CMS_REQUIRES(blocksLock_) {
    return ring_.data() + number * blockBytes_;
  }
  void DropFirst() CMS_REQUIRES(blocksLock_) {
    first_ = (first_ + 1) % kKept;
    --count_;
  }

  const tCMSAudioPlayerConfig config_;
  const std::string device_;
  const std::size_t blockBytes_;
  CMSCritical blocksLock_;
  std::condition_variable_any arrived_;
  std::vector<unsigned char> ring_ CMS_GUARDED_BY(blocksLock_);
  std::size_t first_ CMS_GUARDED_BY(blocksLock_) = 0;
  std::size_t count_ CMS_GUARDED_BY(blocksLock_) = 0;
  CMSCritical lifeLock_;                                                 // goes before the other
  std::unique_ptr<CCMSAudioCapture> capture_ CMS_GUARDED_BY(lifeLock_);  // calls Keep
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
