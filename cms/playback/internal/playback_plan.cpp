#include "cms/playback/internal/playback_plan.h"

#include <algorithm>
#include <cmath>

namespace cms {
namespace {

constexpr int kLongestWait = 500;  // milliseconds, while the clock runs
constexpr double kSmoothing = 0.2;

// Memory that the displayed channels of a controller share.
constexpr std::size_t kStagedBytes = std::size_t{256} << 20;
constexpr std::size_t kReverseBytes = std::size_t{512} << 20;
constexpr std::size_t kMostStagedBytes = std::size_t{32} << 20;   // of a channel
constexpr std::size_t kMostReverseBytes = std::size_t{96} << 20;  // in its two windows

std::size_t Share(const PlaybackTransport::View& view, std::size_t bytes, std::size_t most) {
  return std::min(most, bytes / static_cast<std::size_t>(std::max(view.displayedCount, 1)));
}

}  // namespace

PlaybackPlan::Place PlaybackPlan::Locate(const View& view) const {
  Place place;
  place.current = track_.At(view.position);
  place.covered = track_.Covers(place.current, view.position);
  place.keysOnly = view.keysOnly;
  if (place.covered) {
    place.keysOnly =
        place.keysOnly || (!view.forward && view.running && IsTooSlow(view, *place.current.gop));
    place.wanted = place.keysOnly ? PlaybackTrack::KeyOf(place.current) : place.current;
  }
  return place;
}

FrameRef PlaybackPlan::Aim(const View& view, const Place& place, const FrameRef& staged,
                           const FrameRef& shown, const StepsTo& stepsTo) {
  if (staged) {
    return Following(view, staged, place.keysOnly);
  }
  if (!place.wanted) {  // in a gap: the first picture behind it
    FrameRef next = place.current;
    if (view.forward) {
      next = place.current ? track_.After(place.current) : track_.First();
    }
    return next && IsLost(next) ? Following(view, next, place.keysOnly) : next;
  }
  if (shown.Is(place.wanted) || IsLost(place.wanted)) {
    return Following(view, place.wanted, place.keysOnly);
  }
  // Only work that came too late tells that the decoder is behind.
  return view.forward && !place.keysOnly && missed_ > 0 ? AimInTime(view, place, stepsTo)
                                                        : place.wanted;
}

// The first frame that can still be decoded while it is the one to show, else the next key frame,
// which costs nothing before it.
FrameRef PlaybackPlan::AimInTime(const View& view, const Place& place, const StepsTo& stepsTo) {
  const double cost = MediaTimeOfFrame(view, view.working);
  FrameRef target = place.current;
  for (; missed_ < kMostMissed && target.index < target.gop->video.size(); ++target.index) {
    const double ready =
        static_cast<double>(view.position) + cost * static_cast<double>(stepsTo(target));
    if (ready < static_cast<double>(track_.ValidUntil(target)) && !IsLost(target)) {
      return target;
    }
  }
  FrameRef key = track_.KeyAfter(place.current);
  missed_ = 0;  // a new beginning
  return key && !IsLost(key) ? key : place.current;
}

bool PlaybackPlan::IsOvertaken(const View& view, const Place& place, const FrameRef& target) {
  if (view.forward && !place.keysOnly && view.position >= EndOf(target, false)) {
    ++missed_;
    return true;
  }
  return place.current && !(target.Place() == place.current.Place()) &&
         (target.Time() < place.current.Time()) == view.forward;
}

bool PlaybackPlan::IsLate(const View& view, const FrameRef& target, std::int64_t end,
                          std::int64_t now) {
  const bool late = view.forward ? now >= end : now < target.Time();
  missed_ = late ? missed_ + 1 : 0;
  return late;
}

FrameRef PlaybackPlan::Following(const View& view, FrameRef frame, bool keysOnly) const {
  do {
    if (view.forward) {
      frame = keysOnly ? track_.KeyAfter(frame) : track_.After(frame);
    } else {
      frame = keysOnly ? track_.KeyBefore(frame) : track_.Before(frame);
    }
  } while (frame && IsLost(frame));
  return frame;
}

std::int64_t PlaybackPlan::EndOf(const FrameRef& frame, bool keysOnly) const {
  return track_.ValidUntil(keysOnly ? FrameRef{frame.gop, frame.gop->video.size() - 1} : frame);
}

int PlaybackPlan::UntilDue(const View& view, const Place& place,
                           const PictureStore::Standing& stage) const {
  std::int64_t media = kLongestWait * 32;
  if (place.covered) {  // whatever comes next, this ends
    media = view.forward ? track_.ValidUntil(place.current) - view.position
                         : view.position - place.current.Time() + 1;
  }
  if (stage.first) {
    media = std::min(media, view.forward ? stage.first.Time() - view.position
                                         : view.position - stage.firstEnd + 1);
  }
  const double wait = std::ceil(static_cast<double>(media) / view.rate);
  return std::clamp(static_cast<int>(std::min(wait, 1e6)), 1, kLongestWait);
}

std::size_t PlaybackPlan::StagedBytes(const View& view) {
  return Share(view, kStagedBytes, kMostStagedBytes);
}

std::size_t PlaybackPlan::PicturesOfWindow(const View& view) const {
  const std::size_t bytes = Share(view, kReverseBytes, kMostReverseBytes) / 2;
  return std::max<std::size_t>(2, bytes / std::max<std::size_t>(pictureBytes_, 1));
}

// How far the clock goes while a frame is decoded and so many channels share the processors.
double PlaybackPlan::MediaTimeOfFrame(const View& view, int channels) const {
  return decodeMs_ * std::max(1.0, channels / processors_) * view.rate;
}

// Whether a group cannot be decoded backward in the time that it plays. Its first pictures are
// decoded again for each later part of it.
bool PlaybackPlan::IsTooSlow(const View& view, const PlaybackGop& gop) const {
  const std::size_t count = gop.video.size();
  const std::size_t parts = (count - 1) / PicturesOfWindow(view) + 1;
  const std::size_t frames = parts * count - PicturesOfWindow(view) * (parts * (parts - 1) / 2);
  const double work = MediaTimeOfFrame(view, view.displayedCount) * static_cast<double>(frames);
  return count > 1 && work > static_cast<double>(gop.video.back().time - gop.video.front().time);
}

void PlaybackPlan::BeginEpoch(bool otherWay) {
  lost_.clear();
  if (otherWay) {
    missed_ = 0;
  }
}

void PlaybackPlan::Decoded(double milliseconds, std::size_t pixels) {
  decodeMs_ += kSmoothing * (milliseconds - decodeMs_);
  if (pixels != 0) {
    pictureBytes_ = pixels * 3 / 2;  // 4:2:0 as a rule; the window's memory is meant roughly
  }
}

bool PlaybackPlan::IsLost(const FrameRef& frame) const {
  return std::any_of(lost_.begin(), lost_.end(),
                     [&frame](const FrameRef& lost) { return lost.Is(frame); });
}

void PlaybackPlan::Shown(const View& view, const FrameRef& frame) {
  std::erase_if(lost_, [&](const FrameRef& lost) {
    return view.forward ? lost.Time() <= frame.Time() : lost.Time() >= frame.Time();
  });
}

}  // namespace cms
