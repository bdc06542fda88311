#include "cms/audio/audio_capture.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cms/audio/audio_player.h"
#include "cms/audio/internal/alsa_device.h"
#include "cms/audio/internal/g711.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/wake_up.h"

namespace cms {
namespace {

constexpr auto kCapture = AlsaDevice::Direction::kCapture;
constexpr std::uint32_t kBlockMs = 20;
constexpr std::uint32_t kBufferMs = 200;
constexpr int kRetryMs = 2000;

// `bytes`: as long as CCMSAudioCapture::BlockBytes says.
void Encode(std::int32_t codecId, std::span<const std::int16_t> samples,
            std::span<unsigned char> bytes) {
  switch (codecId) {
    case CMS_CODEC_PCM_MULAW:
      EncodeMuLaw(samples.data(), samples.size(), bytes.data());
      break;
    case CMS_CODEC_PCM_ALAW:
      EncodeALaw(samples.data(), samples.size(), bytes.data());
      break;
    default:
      std::memcpy(bytes.data(), samples.data(), bytes.size());
      for (std::size_t i = 0; codecId == CMS_CODEC_PCM_S16BE && i < bytes.size(); i += 2) {
        std::swap(bytes[i], bytes[i + 1]);
      }
  }
}

std::size_t BlockSamples(const tCMSAudioPlayerConfig& config) {
  return std::size_t{config.sampleRate} * kBlockMs / 1000 * config.channels;
}

}  // namespace

class CCMSAudioCapture::Impl {
 public:
  Impl(const tCMSAudioPlayerConfig& config, OnBlock onBlock, std::string device)
      : config_(config),
        onBlock_(std::move(onBlock)),
        device_(device.empty() ? AlsaDeviceOf(config.device, kCapture) : std::move(device)),
        block_(BlockSamples(config)),
        encoded_(BlockBytes(config)) {
    if (!IsUsable(config)) {
      throw std::runtime_error("the audio format cannot be captured");
    }
    if (!Open()) {
      throw std::runtime_error(pcm_.ErrorText());
    }
    if (!thread_.Start("cms-audio-in", [this] { Run(); })) {
      throw std::runtime_error("there is no thread to capture with");
    }
  }

  ~Impl() {
    stopping_.store(true);
    wake_.Signal();
    thread_.Join();
  }

 private:
  bool Open() {
    filled_ = 0;
    return pcm_.Open(device_, kCapture, {config_.sampleRate, config_.channels}, kBufferMs) == 0;
  }

  void Wait(int timeoutMs) {
    waits_.assign(1, {wake_.Descriptor(), POLLIN, 0});
    if (pcm_.IsOpen()) {
      pcm_.Descriptors(&waits_);
    }
    ::poll(waits_.data(), waits_.size(), timeoutMs);
  }

  void Run() {
    while (!stopping_.load()) {
      if (!pcm_.IsOpen()) {
        Wait(kRetryMs);
        if (!stopping_.load()) {
          Open();
        }
        continue;
      }
      const long frames = pcm_.Read(std::span(block_).subspan(filled_));
      if (frames == -EAGAIN || frames == 0) {
        Wait(-1);
      } else if (frames < 0) {
        if (pcm_.Recover(frames) < 0) {
          pcm_.Close();
        }
      } else {
        filled_ += static_cast<std::size_t>(frames) * config_.channels;
        if (filled_ == block_.size()) {
          filled_ = 0;
          Encode(config_.codecId, block_, encoded_);
          onBlock_(encoded_.data(), static_cast<int>(encoded_.size()));
        }
      }
    }
  }

  const tCMSAudioPlayerConfig config_;
  const OnBlock onBlock_;
  const std::string device_;
  std::vector<std::int16_t> block_;
  std::size_t filled_ = 0;  // samples
  std::vector<unsigned char> encoded_;
  AlsaDevice pcm_;
  WakeUp wake_;
  std::vector<pollfd> waits_;
  std::atomic<bool> stopping_{false};
  NamedThread thread_;
};

bool CCMSAudioCapture::IsUsable(const tCMSAudioPlayerConfig& config) {
  switch (config.codecId) {
    case CMS_CODEC_PCM_MULAW:
    case CMS_CODEC_PCM_ALAW:
    case CMS_CODEC_PCM_S16LE:
    case CMS_CODEC_PCM_S16BE:
      return CCMSAudioPlayer::IsUsable(config);
    default:
      return false;
  }
}

std::size_t CCMSAudioCapture::BlockBytes(const tCMSAudioPlayerConfig& config) {
  const bool companded =
      config.codecId == CMS_CODEC_PCM_MULAW || config.codecId == CMS_CODEC_PCM_ALAW;
  return BlockSamples(config) * (companded ? 1 : sizeof(std::int16_t));
}

CCMSAudioCapture::CCMSAudioCapture(const tCMSAudioPlayerConfig& config, OnBlock onBlock,
                                   std::string device)
    : impl_(std::make_unique<Impl>(config, std::move(onBlock), std::move(device))) {}

CCMSAudioCapture::~CCMSAudioCapture() = default;

std::unique_ptr<AudioCapture> MakeAudioCapture(const tCMSAudioPlayerConfig& config,
                                               AudioCapture::OnBlock onBlock) {
  try {
    return std::make_unique<CCMSAudioCapture>(config, std::move(onBlock));
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace cms
