#include "cms/audio/audio_player.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "cms/audio/internal/alsa_device.h"
#include "cms/audio/internal/block_decoder.h"
#include "cms/audio/internal/playout_buffer.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/wake_up.h"

namespace cms {
namespace {

constexpr auto kPlay = AlsaDevice::Direction::kPlay;
constexpr std::uint32_t kMinimumDelayMs = 20;
constexpr std::uint32_t kMaximumDelayMs = 1000;
constexpr std::uint32_t kMaximumBlockSize = 1u << 20;
constexpr std::uint32_t kMinimumRate = 2000;
constexpr std::uint32_t kMaximumRate = 384000;
constexpr std::uint64_t kReopenMs = 2000;
constexpr std::uint32_t kChunkMs = 10;
// The queue holds what Play's caller may be ahead of the delay, of the widest usual format.
constexpr std::size_t kQueueBytes = std::size_t{96000} * 2 * sizeof(std::int16_t) * 2;

}  // namespace

class CCMSAudioPlayer::Impl {
 public:
  Impl(const tCMSAudioPlayerConfig& config, std::string device)
      : config_(config),
        deviceName_(device.empty() ? AlsaDeviceOf(config.device, kPlay) : std::move(device)),
        delayMs_(std::clamp(config.delayMs, kMinimumDelayMs, kMaximumDelayMs)),
        buffer_(kQueueBytes, delayMs_) {}

  bool Start();
  void Stop();
  bool SetFormat(const tCMSAudioPlayerConfig& config);
  bool Play(const unsigned char* block, int length);
  int GetIndexAndPrediction(const unsigned char* block, unsigned channelMode);
  CMSAudioPlayerStatus GetStatus() const;

 private:
  void Run();
  void Feed();
  void Write(std::span<const std::int16_t> samples);
  bool OpenDevice(const PcmFormat& format);
  void CloseDevice(long error);
  void Wait(bool device, int timeoutMs);

  CMSCritical life_;  // orders Start and Stop
  NamedThread thread_ CMS_GUARDED_BY(life_);

  CMSCritical format_;  // Play and SetFormat
  tCMSAudioPlayerConfig config_ CMS_GUARDED_BY(format_);
  std::unique_ptr<BlockDecoder> decoder_ CMS_GUARDED_BY(format_);

  const std::string deviceName_;
  const std::uint32_t delayMs_;
  PlayoutBuffer buffer_;
  WakeUp wake_;
  std::atomic<bool> started_{false};

  // The feeding thread's.
  AlsaDevice device_;
  PcmFormat open_;
  std::vector<std::int16_t> chunk_;
  std::vector<pollfd> waits_;
  std::uint64_t nextOpen_ = 0;

  std::atomic<std::uint64_t> blocks_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<std::uint64_t> played_{0};
  std::atomic<std::uint64_t> underruns_{0};
  std::atomic<std::uint32_t> deviceDelayMs_{0};
  std::atomic<bool> deviceOpen_{false};
  mutable CMSCritical errorLock_;
  std::string error_ CMS_GUARDED_BY(errorLock_);
};

bool CCMSAudioPlayer::IsUsable(const tCMSAudioPlayerConfig& config) {
  return BlockDecoder::Knows(config.codecId) && config.sampleRate >= kMinimumRate &&
         config.sampleRate <= kMaximumRate && config.channels >= 1 && config.channels <= 2 &&
         config.maximumBlockSize >= 1 && config.maximumBlockSize <= kMaximumBlockSize;
}

bool CCMSAudioPlayer::Impl::Start() {
  ScopeLock lock(life_);
  if (started_.load()) {
    return true;
  }
  PcmFormat format;
  {
    ScopeLock formatLock(format_);
    if (!IsUsable(config_)) {
      ScopeLock errorLock(errorLock_);
      error_ = "the audio format cannot be played";
      return false;
    }
    decoder_ = std::make_unique<BlockDecoder>(config_);
    format = {config_.sampleRate, config_.channels};
  }
  if (!OpenDevice(format)) {
    return false;
  }
  buffer_.Clear();
  wake_.Clear();
  started_.store(true);
  if (!thread_.Start("cms-audio-out", [this] { Run(); })) {
    started_.store(false);
    CloseDevice(-errno);
    ScopeLock errorLock(errorLock_);
    error_ = "there is no thread to play with";
    return false;
  }
  return true;
}

void CCMSAudioPlayer::Impl::Stop() {
  ScopeLock lock(life_);
  if (!started_.exchange(false)) {
    return;
  }
  wake_.Signal();
  thread_.Join();
}

bool CCMSAudioPlayer::Impl::SetFormat(const tCMSAudioPlayerConfig& config) {
  if (!IsUsable(config)) {
    return false;
  }
  auto decoder = std::make_unique<BlockDecoder>(config);
  ScopeLock lock(format_);
  config_ = config;
  decoder_ = std::move(decoder);
  return true;
}

bool CCMSAudioPlayer::Impl::Play(const unsigned char* block, int length) {
  ScopeLock lock(format_);
  if (!started_.load(std::memory_order_relaxed)) {
    refused_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  const std::span<const std::int16_t> samples = decoder_->Decode(block, length);
  if (samples.empty()) {
    refused_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  blocks_.fetch_add(1, std::memory_order_relaxed);
  buffer_.Put({config_.sampleRate, config_.channels}, samples);
  wake_.Signal();
  return true;
}

int CCMSAudioPlayer::Impl::GetIndexAndPrediction(const unsigned char* block, unsigned channelMode) {
  ScopeLock lock(format_);
  return decoder_ ? decoder_->Decoder().GetIndexAndPrediction(block, channelMode) : 0;
}

CMSAudioPlayerStatus CCMSAudioPlayer::Impl::GetStatus() const {
  CMSAudioPlayerStatus status;
  status.started = started_.load();
  status.deviceOpen = deviceOpen_.load();
  status.blocks = blocks_.load(std::memory_order_relaxed);
  status.refusedBlocks = refused_.load(std::memory_order_relaxed);
  status.playedFrames = played_.load(std::memory_order_relaxed);
  status.skippedFrames = buffer_.CutFrames();
  status.underruns = underruns_.load(std::memory_order_relaxed);
  const PcmFormat format = buffer_.NextFormat();
  status.delayMs = deviceDelayMs_.load(std::memory_order_relaxed);
  if (format.sampleRate != 0) {
    status.delayMs += static_cast<std::uint32_t>(buffer_.QueuedFrames() * 1000 / format.sampleRate);
  }
  ScopeLock lock(errorLock_);
  status.error = error_;
  return status;
}

// --- The feeding thread -------------------------------------------------------------------------

bool CCMSAudioPlayer::Impl::OpenDevice(const PcmFormat& format) {
  const int result = device_.Open(deviceName_, kPlay, format, delayMs_ * 2);
  {
    ScopeLock lock(errorLock_);
    error_ = device_.ErrorText();
  }
  deviceOpen_.store(result == 0);
  if (result != 0) {
    nextOpen_ = TickMilliseconds() + kReopenMs;
    return false;
  }
  open_ = format;
  chunk_.resize(std::size_t{format.sampleRate} * kChunkMs / 1000 * format.channels);
  return true;
}

void CCMSAudioPlayer::Impl::CloseDevice(long error) {
  device_.Close();
  deviceOpen_.store(false);
  deviceDelayMs_.store(0, std::memory_order_relaxed);
  nextOpen_ = TickMilliseconds() + kReopenMs;
  buffer_.Clear();
  ScopeLock lock(errorLock_);
  error_ = "audio device \"" + deviceName_ +
           "\" is gone: " + std::generic_category().message(static_cast<int>(-error));
}

// Sleeps until there is something new to play, the device takes more (if asked for), or Stop.
void CCMSAudioPlayer::Impl::Wait(bool device, int timeoutMs) {
  waits_.clear();
  waits_.push_back({wake_.Descriptor(), POLLIN, 0});
  if (device) {
    device_.Descriptors(&waits_);
  }
  ::poll(waits_.data(), waits_.size(), timeoutMs);
  wake_.Clear();
}

void CCMSAudioPlayer::Impl::Run() {
  while (started_.load()) {
    const PcmFormat next = buffer_.NextFormat();
    if (next.sampleRate == 0) {
      Wait(false, -1);
      continue;
    }
    if (device_.IsOpen() && !(next == open_)) {
      device_.Drain();  // the end of the old format is heard
    }
    if (!device_.IsOpen() && (TickMilliseconds() < nextOpen_ || !OpenDevice(next))) {
      buffer_.Clear();
      continue;
    }
    Feed();
  }
  device_.Drain();
  deviceOpen_.store(false);
}

// Gives the device what it takes, or waits for more to come together.
void CCMSAudioPlayer::Impl::Feed() {
  const long room = device_.Room();
  if (room < 0) {
    if (room == -EPIPE) {
      underruns_.fetch_add(1, std::memory_order_relaxed);
      buffer_.RanDry();
    }
    if (device_.Recover(room) < 0) {
      CloseDevice(room);
    }
    return;
  }
  if (!buffer_.IsPrimed(false)) {
    const std::size_t before = buffer_.QueuedFrames();
    Wait(false, static_cast<int>(delayMs_));
    if (buffer_.QueuedFrames() == before) {
      buffer_.IsPrimed(true);  // the end of a sound is no reason to keep it back
    }
    return;
  }
  if (room == 0) {
    Wait(true, -1);
    return;
  }
  const std::size_t channels = open_.channels;
  const std::size_t frames = std::min(static_cast<std::size_t>(room), chunk_.size() / channels);
  const auto delay = static_cast<std::size_t>(device_.Delay());
  const std::size_t taken = buffer_.Take(std::span(chunk_).first(frames * channels), delay);
  deviceDelayMs_.store(static_cast<std::uint32_t>((delay + taken) * 1000 / open_.sampleRate),
                       std::memory_order_relaxed);
  Write(std::span(chunk_).first(taken * channels));
}

void CCMSAudioPlayer::Impl::Write(std::span<const std::int16_t> samples) {
  while (!samples.empty() && started_.load()) {
    const long written = device_.Write(samples);
    if (written > 0) {
      played_.fetch_add(static_cast<std::uint64_t>(written), std::memory_order_relaxed);
      samples = samples.subspan(static_cast<std::size_t>(written) * open_.channels);
    } else if (written == 0 || written == -EAGAIN) {
      Wait(true, static_cast<int>(kChunkMs));
    } else if (device_.Recover(written) < 0) {
      CloseDevice(written);
      return;
    }
  }
}

CCMSAudioPlayer::CCMSAudioPlayer(const tCMSAudioPlayerConfig& config, std::string device)
    : impl_(std::make_unique<Impl>(config, std::move(device))) {}

CCMSAudioPlayer::~CCMSAudioPlayer() {
  impl_->Stop();
}

bool CCMSAudioPlayer::Start() {
  return impl_->Start();
}
void CCMSAudioPlayer::Stop() {
  impl_->Stop();
}
bool CCMSAudioPlayer::SetFormat(const tCMSAudioPlayerConfig& config) {
  return impl_->SetFormat(config);
}
bool CCMSAudioPlayer::Play(const unsigned char* block, int length) {
  return impl_->Play(block, length);
}
int CCMSAudioPlayer::GetIndexAndPrediction(const unsigned char* block, unsigned channelMode) {
  return impl_->GetIndexAndPrediction(block, channelMode);
}
CMSAudioPlayerStatus CCMSAudioPlayer::GetStatus() const {
  return impl_->GetStatus();
}

std::unique_ptr<AudioPlayer> MakeAudioPlayer(const tCMSAudioPlayerConfig& config) {
  if (!CCMSAudioPlayer::IsUsable(config)) {
    return nullptr;
  }
  return std::make_unique<CCMSAudioPlayer>(config);
}

}  // namespace cms
