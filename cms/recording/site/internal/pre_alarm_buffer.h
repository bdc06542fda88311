// The latest seconds of one channel, ready to be recorded when an event begins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace cms {

// Frames one behind the other in a ring of bytes that is allocated once. The first is always a key
// frame: the newest one that is at least `seconds` old, or the oldest that there is. When the ring
// is full the oldest frames go, up to the next key frame; a single group of pictures that does not
// fit goes as a whole. With 0 seconds it holds the running group of pictures, and of the ring only
// as much is touched as the largest group has. Not for concurrent use.
class PreAlarmBuffer {
 public:
  struct Frame {
    std::span<const std::uint8_t> header;
    std::span<const std::uint8_t> payload;
    bool key = false;
    bool audio = false;
    std::uint32_t seconds = 0;  // of the header
    std::uint64_t tick = 0;     // of the arrival, milliseconds; what Add was told
  };

  PreAlarmBuffer(unsigned seconds, std::size_t bytes);

  // The bytes that hold so many seconds of a stream at 8 Mbit/s, and at least two large frames;
  // with 0 seconds a group of pictures of 16 seconds.
  static std::size_t DefaultBytes(unsigned seconds);

  // Dropped while there is no key frame in front of it. `tick` is the arrival in milliseconds.
  void Add(const Frame& frame, std::uint64_t tick);
  void Clear();
  bool IsEmpty() const { return frames_ == 0; }

  // Calls `visit` with each frame, the oldest first. Their bytes are the buffer's.
  template <typename Visit>
  void ForEach(Visit visit) const {
    std::size_t at = head_;
    for (std::size_t i = 0; i < frames_; ++i) {
      at = SkipGap(at);
      const Entry entry = EntryAt(at);
      const std::uint8_t* const bytes = ring_.get() + at + sizeof(Entry);
      visit(Frame{{bytes, entry.header},
                  {bytes + entry.header, entry.payload},
                  entry.key,
                  entry.audio,
                  entry.seconds,
                  entry.tick});
      at += entry.length;
    }
  }

 private:
  struct Entry {
    std::uint64_t tick;
    std::uint32_t length;  // with this, rounded up; 0: nothing more before the ring's end
    std::uint32_t header;
    std::uint32_t payload;
    std::uint32_t seconds;
    bool key;
    bool audio;
  };

  Entry EntryAt(std::size_t at) const;
  void Put(std::size_t at, const Entry& entry);
  std::size_t SkipGap(std::size_t at) const;
  bool MakeRoom(std::size_t length);
  void DropGroup();
  void DropOld(std::uint64_t tick);

  const std::uint64_t keepMs_;
  const std::size_t size_;
  const std::unique_ptr<std::uint8_t[]> ring_;
  std::size_t head_ = 0;  // of the first frame
  std::size_t tail_ = 0;  // behind the last
  std::size_t frames_ = 0;
};

}  // namespace cms
