#include "cms/playback/internal/playback_track.h"

#include <algorithm>
#include <utility>

namespace cms {
namespace {

// Pictures further apart than a minute are single ones.
constexpr std::int64_t kLongestInterval = 60'000;

bool AreAlike(std::int64_t distance, std::int64_t other) {
  return distance <= 2 * other && other <= 2 * distance;
}

}  // namespace

std::shared_ptr<const PlaybackGop> PlaybackTrack::Group(const GopPlace& place) {
  for (const auto& recent : recent_) {
    if (recent && recent->place == place) {
      return recent;
    }
  }
  auto gop = std::make_shared<PlaybackGop>();
  if (!reader_.Load(place, *gop)) {
    return nullptr;
  }
  recent_[oldest_] = gop;
  oldest_ = (oldest_ + 1) % recent_.size();
  return gop;
}

std::shared_ptr<const PlaybackGop> PlaybackTrack::GroupFrom(std::optional<GopPlace> place,
                                                            bool forward) {
  for (; place; place = forward ? reader_.After(*place) : reader_.Before(*place)) {
    if (auto gop = Group(*place)) {
      return gop;
    }
  }
  return nullptr;
}

FrameRef PlaybackTrack::At(std::int64_t time) {
  auto gop = GroupFrom(reader_.At(time), false);
  if (!gop) {
    return {};
  }
  const auto later =
      std::upper_bound(gop->video.begin(), gop->video.end(), time,
                       [](std::int64_t t, const PlaybackFrame& frame) { return t < frame.time; });
  const auto index = static_cast<std::size_t>(later - gop->video.begin());
  return {std::move(gop), index == 0 ? 0 : index - 1};
}

FrameRef PlaybackTrack::First() {
  return {GroupFrom(reader_.First(), true), 0};
}

FrameRef PlaybackTrack::After(const FrameRef& frame) {
  // The group may have grown since.
  const auto gop = Group(frame.Place());
  if (gop && frame.index + 1 < gop->video.size()) {
    return {gop, frame.index + 1};
  }
  return KeyAfter(frame);
}

FrameRef PlaybackTrack::Before(const FrameRef& frame) {
  if (frame.index > 0) {
    return {frame.gop, frame.index - 1};
  }
  FrameRef key = KeyBefore(frame);
  if (key) {
    key.index = key.gop->video.size() - 1;
  }
  return key;
}

FrameRef PlaybackTrack::KeyAfter(const FrameRef& frame) {
  return {GroupFrom(reader_.After(frame.Place()), true), 0};
}

FrameRef PlaybackTrack::KeyBefore(const FrameRef& frame) {
  return {GroupFrom(reader_.Before(frame.Place()), false), 0};
}

// Whether nothing was recorded between two neighbours. Pictures that come seldom have neighbours
// about as far away on one side at least.
bool PlaybackTrack::IsGap(const FrameRef& frame, const FrameRef& next) {
  const std::int64_t distance = next.Time() - frame.Time();
  if (distance <= kPlaybackGap || distance > kLongestInterval) {
    return distance > kPlaybackGap;
  }
  if (const FrameRef before = Before(frame);
      before && AreAlike(distance, frame.Time() - before.Time())) {
    return false;
  }
  const FrameRef behind = After(next);
  return !behind || !AreAlike(distance, behind.Time() - next.Time());
}

std::int64_t PlaybackTrack::ValidUntil(const FrameRef& frame) {
  if (const FrameRef next = After(frame); next && !IsGap(frame, next)) {
    return next.Time();
  }
  std::int64_t interval = kUsualInterval;
  if (const FrameRef before = Before(frame); before && !IsGap(before, frame)) {
    interval = std::max(interval, frame.Time() - before.Time());
  }
  return frame.Time() + interval;
}

void PlaybackTrack::Forget() {
  recent_.fill(nullptr);
}

}  // namespace cms
