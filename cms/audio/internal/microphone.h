// Microphone: a capture whose blocks wait in a ring until they are fetched.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cms/audio/audio_capture.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// Keeps the newest two seconds. Any thread.
class Microphone {
 public:
  // `device` as CCMSAudioCapture's.
  Microphone(const tCMSAudioPlayerConfig& config, std::string device);

  // False when the device cannot be opened. Starting a started one changes nothing.
  bool Start();
  // Forgets what waits. False when it was not started.
  bool Stop();

  // Waits for a block and copies it: its length; 0 when none came in time, -1 when `size` is too
  // small for it (it goes on waiting then).
  int Fetch(unsigned char* buffer, int size, unsigned timeoutMs);

 private:
  static constexpr std::size_t kKept = 100;  // blocks: two seconds

  void Keep(const unsigned char* block);
  unsigned char* Slot(std::size_t number) CMS_REQUIRES(blocksLock_) {
    return ring_.data() + number * blockBytes_;
  }
  void DropFirst() CMS_REQUIRES(blocksLock_);

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

}  // namespace cms
