// The latest seconds of one channel, ready to be recorded when an event begins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/live/media/frame.h"

namespace cms {

// Frames one behind the other in a ring of bytes that is allocated once. The first is always a key
// frame: the newest one that is at least `seconds` old, or the oldest that there is. When the ring
// is full the oldest frames go, up to the next key frame; a single group of pictures that does not
// fit goes as a whole. With 0 seconds it holds the running group of pictures, and of the ring only
// as much is touched as the largest group has. Not for concurrent use.
class PreAlarmBuffer {
 public:
  PreAlarmBuffer(unsigned seconds, std::size_t bytes);

  // The bytes that hold so many seconds of a stream at 8 Mbit/s, and at least two large frames;
  // with 0 seconds a group of pictures of 16 seconds.
  static std::size_t DefaultBytes(unsigned seconds);

  // Dropped while there is no key frame in front of it. Its arrival has to be known.
  void Add(const FrameView& frame);
  void Clear();
  bool IsEmpty() const { return frames_ == 0; }

  // Calls `visit` with each frame, the oldest first. Their bytes are the buffer's.
  template <typename Visit>
  void ForEach(Visit visit) const {
    std::size_t at = head_;
    for (std::size_t i = 0; i < frames_; ++i) {
      at = SkipGap(at);
      const Entry entry = EntryAt(at);
      visit(entry.frame);
      at += entry.length;
    }
  }

 private:
  // In front of the bytes of its frame's header and payload.
  struct Entry {
    FrameView frame;
    std::size_t length = 0;  // with this, rounded up; 0: nothing more before the ring's end
  };

  Entry EntryAt(std::size_t at) const;
  void Put(std::size_t at, const Entry& entry);
  std::size_t SkipGap(std::size_t at) const;
  bool MakeRoom(std::size_t length);
  void DropGroup();
  void DropOld(std::uint64_t nowUs);

  const std::uint64_t keepUs_;
  const std::size_t size_;
  const std::unique_ptr<std::uint8_t[]> ring_;
  std::size_t head_ = 0;  // of the first frame
  std::size_t tail_ = 0;  // behind the last
  std::size_t frames_ = 0;
};

}  // namespace cms
