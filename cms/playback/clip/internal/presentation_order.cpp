#include "cms/playback/clip/internal/presentation_order.h"

#include <algorithm>
#include <utility>

namespace cms {
namespace {

constexpr std::size_t kMostReordering = 16;  // pictures that a decoder can hold back
constexpr std::size_t kMostWaiting = 128;    // beyond it the numbers are wrong

}  // namespace

PresentationOrder::PresentationOrder(int reordering)
    : reordering_(std::min(static_cast<std::size_t>(reordering), kMostReordering)) {}

void PresentationOrder::Add(TimedFrame frame, std::int64_t number) {
  if (frame.frame.audio) {
    waiting_.push_back({{std::move(frame), 0}, 0, true});
    return;
  }
  if (number < shown_ && reordering_ < kMostReordering) {
    ++reordering_;  // this one came too late, those behind it will not
  }
  const std::int64_t decodingTime = DecodingTime(frame);
  times_.push_back({frame.time, frame.interval});
  waiting_.push_back({{std::move(frame), decodingTime}, number, false});
  while (times_.size() > reordering_ || (waiting_.size() > kMostWaiting && !times_.empty())) {
    GiveTime();
  }
}

void PresentationOrder::End() {
  while (!times_.empty()) {
    GiveTime();
  }
}

// To the picture that is shown first of those that wait for a time.
void PresentationOrder::GiveTime() {
  Waiting* first = nullptr;
  for (Waiting& each : waiting_) {
    if (!each.ready && (first == nullptr || each.number < first->number)) {
      first = &each;
    }
  }
  first->frame.timed.time = times_.front().time;
  first->frame.timed.interval = times_.front().interval;
  first->ready = true;
  shown_ = first->number;
  times_.pop_front();
}

std::int64_t PresentationOrder::DecodingTime(const TimedFrame& timed) {
  for (std::size_t i = kMostReordering; came_.size() < kMostReordering; --i) {
    came_.push_back(timed.time - static_cast<std::int64_t>(i) * timed.interval);
  }
  came_.push_back(timed.time);
  if (came_.size() > kMostReordering + 1) {
    came_.pop_front();
  }
  return came_[came_.size() - 1 - reordering_];
}

std::optional<OrderedFrame> PresentationOrder::Next() {
  if (waiting_.empty() || !waiting_.front().ready) {
    return std::nullopt;
  }
  OrderedFrame frame = std::move(waiting_.front().frame);
  waiting_.pop_front();
  return frame;
}

}  // namespace cms
