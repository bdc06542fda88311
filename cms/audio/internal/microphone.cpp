#include "cms/audio/internal/microphone.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace cms {

Microphone::Microphone(const tCMSAudioPlayerConfig& config, std::string device)
    : config_(config),
      device_(std::move(device)),
      blockBytes_(CCMSAudioCapture::BlockBytes(config)),
      ring_(kKept * blockBytes_) {}

bool Microphone::Start() {
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

bool Microphone::Stop() {
  const ScopeLock life(lifeLock_);
  const bool started = capture_ != nullptr;
  capture_.reset();
  const ScopeLock blocks(blocksLock_);
  count_ = 0;
  return started;
}

int Microphone::Fetch(unsigned char* buffer, int size, unsigned timeoutMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
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

void Microphone::Keep(const unsigned char* block) {
  const ScopeLock blocks(blocksLock_);
  if (count_ == kKept) {
    DropFirst();
  }
  std::copy_n(block, blockBytes_, Slot((first_ + count_) % kKept));
  ++count_;
  arrived_.notify_one();
}

void Microphone::DropFirst() {
  first_ = (first_ + 1) % kKept;
  --count_;
}

}  // namespace cms
