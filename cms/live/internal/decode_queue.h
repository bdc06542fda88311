// The bounded queue of frames in front of a decode thread.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// First in, first out, between any number of producers and one consumer. Frames are copied once
// into buffers that are used again, the most recently freed one first: once these have grown to the
// stream's frames nothing is allocated, and a consumer that keeps up needs only one or two.
class DecodeQueue {
 public:
  static constexpr int kMaxFrames = 32;
  static constexpr std::size_t kMaxBytes = 32U << 20U;  // four of the largest frames

  struct Frame {
    const std::uint8_t* data;  // followed by kInputPadding zero bytes
    int length;
  };

  DecodeQueue() = default;  // stopped
  DecodeQueue(const DecodeQueue&) = delete;
  DecodeQueue& operator=(const DecodeQueue&) = delete;

  // Copies the frame in; false when it is empty, a bound is reached, or the queue is stopped.
  bool Put(const std::uint8_t* data, int length);

  // Waits for a frame; false when the queue is stopped. The frame stays valid until Done, which the
  // consumer calls before the next Take.
  bool Take(Frame& frame);
  void Done();

  // Drops what is queued; a taken frame stays valid.
  void Clear();

  // Stop releases a waiting consumer and refuses frames; Start empties the queue and opens it
  // again.
  void Stop();
  void Start();

 private:
  struct Slot {
    std::unique_ptr<std::uint8_t[]> memory;
    std::size_t capacity = 0;
    int length = 0;
  };

  CMSCritical lock_;
  std::condition_variable_any ready_;
  std::array<Slot, kMaxFrames> slots_ CMS_GUARDED_BY(lock_);
  std::array<int, kMaxFrames> order_ CMS_GUARDED_BY(lock_);  // ring of the queued slots
  std::array<int, kMaxFrames> free_ CMS_GUARDED_BY(lock_);   // stack of the free ones
  int first_ CMS_GUARDED_BY(lock_) = 0;
  int queued_ CMS_GUARDED_BY(lock_) = 0;
  int freeCount_ CMS_GUARDED_BY(lock_) = 0;
  int taken_ CMS_GUARDED_BY(lock_) = -1;
  std::size_t bytes_ CMS_GUARDED_BY(lock_) = 0;
  bool stopped_ CMS_GUARDED_BY(lock_) = true;
};

}  // namespace cms
