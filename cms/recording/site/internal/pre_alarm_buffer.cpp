#include "cms/recording/site/internal/pre_alarm_buffer.h"

#include <algorithm>
#include <cstring>

namespace cms {
namespace {

constexpr std::size_t kAlignment = 8;
constexpr std::size_t kBytesPerSecond = 1'000'000;
constexpr std::size_t kFewestBytes = 4'000'000;
constexpr std::size_t kMostBytes = 64'000'000;
constexpr std::size_t kGroupBytes = 16'000'000;

std::size_t RoundUp(std::size_t bytes) {
  return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

PreAlarmBuffer::PreAlarmBuffer(unsigned seconds, std::size_t bytes)
    : keepUs_(std::uint64_t{seconds} * 1'000'000),
      size_(RoundUp(std::max(bytes, sizeof(Entry)))),
      ring_(new std::uint8_t[size_]) {}

std::size_t PreAlarmBuffer::DefaultBytes(unsigned seconds) {
  return seconds == 0 ? kGroupBytes
                      : std::clamp((seconds + 2) * kBytesPerSecond, kFewestBytes, kMostBytes);
}

void PreAlarmBuffer::Clear() {
  head_ = 0;
  tail_ = 0;
  frames_ = 0;
}

PreAlarmBuffer::Entry PreAlarmBuffer::EntryAt(std::size_t at) const {
  Entry entry;
  std::memcpy(&entry, ring_.get() + at, sizeof entry);
  return entry;
}

void PreAlarmBuffer::Put(std::size_t at, const Entry& entry) {
  std::memcpy(ring_.get() + at, &entry, sizeof entry);
}

// Where the frame that is to be found at `at` really stands.
std::size_t PreAlarmBuffer::SkipGap(std::size_t at) const {
  return size_ - at < sizeof(Entry) || EntryAt(at).length == 0 ? 0 : at;
}

void PreAlarmBuffer::Add(const FrameView& frame) {
  if (frame.key && keepUs_ == 0) {
    Clear();
  }
  if (frames_ == 0 && !frame.key) {
    return;
  }
  const std::size_t length = RoundUp(sizeof(Entry) + frame.header.size() + frame.payload.size());
  if (!MakeRoom(length) || (frames_ == 0 && !frame.key)) {
    Clear();
    return;
  }
  Entry entry{frame, length};
  std::uint8_t* const header = ring_.get() + tail_ + sizeof entry;
  std::uint8_t* const payload = std::copy(frame.header.begin(), frame.header.end(), header);
  std::copy(frame.payload.begin(), frame.payload.end(), payload);
  entry.frame.header = {header, frame.header.size()};
  entry.frame.payload = {payload, frame.payload.size()};
  Put(tail_, entry);
  tail_ += length;
  ++frames_;
  if (frame.key) {
    DropOld(frame.arrivalUs);
  }
}

// Leaves `length` bytes in one piece at the tail; false when the ring is too small for them.
bool PreAlarmBuffer::MakeRoom(std::size_t length) {
  if (length > size_) {
    return false;
  }
  while (true) {
    if (frames_ == 0) {
      Clear();
      return true;
    }
    if (tail_ <= head_) {  // the free bytes lie between them; none when they meet
      if (head_ - tail_ >= length) {
        return true;
      }
    } else if (size_ - tail_ >= length) {
      return true;
    } else if (head_ >= length) {
      if (size_ - tail_ >= sizeof(Entry)) {
        Put(tail_, Entry{});
      }
      tail_ = 0;
      return true;
    }
    DropGroup();
  }
}

// The first key frame and what depends on it.
void PreAlarmBuffer::DropGroup() {
  bool first = true;
  while (frames_ > 0) {
    head_ = SkipGap(head_);
    const Entry entry = EntryAt(head_);
    if (entry.frame.key && !first) {
      return;
    }
    first = false;
    head_ += entry.length;
    --frames_;
  }
}

// As long as the second key frame is old enough, the first group is not needed.
void PreAlarmBuffer::DropOld(std::uint64_t nowUs) {
  while (true) {
    std::size_t at = head_;
    bool found = false;
    for (std::size_t i = 0; i < frames_ && !found; ++i) {
      at = SkipGap(at);
      const Entry entry = EntryAt(at);
      found = i > 0 && entry.frame.key && nowUs - entry.frame.arrivalUs >= keepUs_;
      if (i > 0 && entry.frame.key && !found) {
        return;
      }
      at += entry.length;
    }
    if (!found) {
      return;
    }
    DropGroup();
  }
}

}  // namespace cms
