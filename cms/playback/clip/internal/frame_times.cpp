#include "cms/playback/clip/internal/frame_times.h"

#include <algorithm>

namespace cms {
namespace {

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::size_t kNone = SIZE_MAX;
constexpr std::int64_t kMostPictures = 10'000;  // in a second; beyond, a new one begins

// What the header says of the camera's frame rate.
std::int64_t IntervalOf(const RecordedFrame& frame) {
  constexpr int kRateShift = 2;
  const std::int64_t rate = frame.frame.header.Bytes()[13] >> kRateShift;
  return kSecond / (rate == 0 ? 25 : rate);
}

}  // namespace

void FrameTimes::Add(RecordedFrame frame) {
  if (frame.audio) {
    if (!seconds_.empty()) {
      seconds_.back().frames.push_back(std::move(frame));
    }
    return;
  }
  std::int64_t second = frame.Seconds() + shift_;
  if (seconds_.empty() || second != seconds_.back().second ||
      seconds_.back().pictures == kMostPictures) {
    bool continues = false;
    if (!seconds_.empty()) {
      const std::int64_t last = seconds_.back().second;
      if (second <= last) {
        shift_ += last + 1 - second;
        second = last + 1;
      }
      continues = second == last + 1;
    }
    seconds_.push_back({second, 0, continues, shift_, {}});
    if (seconds_.size() > 2) {
      Release();
    }
  }
  ++seconds_.back().pictures;
  seconds_.back().frames.push_back(std::move(frame));
}

void FrameTimes::End() {
  while (!seconds_.empty()) {
    Release();
  }
}

// Gives the first second's frames their times; the one behind it, if any, is complete or the last.
void FrameTimes::Release() {
  Second& second = seconds_.front();
  const bool goesOn = seconds_.size() > 1 && seconds_[1].continues;
  const std::int64_t even = kSecond / second.pictures;
  std::int64_t interval = even;
  std::int64_t time = second.second * kSecond;
  if (second.continues && !goesOn) {
    interval = std::min(even, lastInterval_);
  } else if (!second.continues && goesOn) {
    // A second that is the last may be one that was ended within.
    interval = std::min(even, seconds_.size() > 2 ? kSecond / seconds_[1].pictures
                                                  : IntervalOf(second.frames.front()));
    time += kSecond - second.pictures * interval;
  } else if (!second.continues) {
    interval = std::min(even, IntervalOf(second.frames.front()));
  }
  lastInterval_ = interval;
  std::size_t before = kNone;  // where the picture in front is
  for (RecordedFrame& frame : second.frames) {
    const bool audio = frame.audio;
    const auto told = frame.frame.header.TimeUs();
    const std::int64_t at = told ? *told + second.shift * kSecond : audio ? lastTime_ : time;
    ready_.push_back({std::move(frame), at, interval, told.has_value()});
    if (audio) {
      continue;
    }
    TimedFrame& picture = ready_.back();
    picture.time = std::max(at, lastTime_ + 1);
    if (before != kNone && told) {
      ready_[before].interval = picture.time - ready_[before].time;
    }
    before = ready_.size() - 1;
    lastTime_ = picture.time;
    time += interval;
  }
  seconds_.pop_front();
}

std::optional<TimedFrame> FrameTimes::Next() {
  if (ready_.empty()) {
    return std::nullopt;
  }
  TimedFrame frame = std::move(ready_.front());
  ready_.pop_front();
  return frame;
}

}  // namespace cms
