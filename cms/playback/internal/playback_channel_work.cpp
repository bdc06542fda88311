// What a channel's reader thread does next, and how it comes to pictures.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>

#include "cms/live/media/frame_header.h"
#include "cms/playback/internal/playback_channel_data.h"

using cms::FrameRef;

namespace {

constexpr int kLongestWait = 500;  // milliseconds, while the clock runs
constexpr std::size_t kFewStaged = 1;
constexpr int kMostMissed = 3;  // pictures in a row, before the next key frame is waited for
constexpr double kSmoothing = 0.2;

// Memory that the displayed channels of a controller share.
constexpr std::size_t kStagedBytes = std::size_t{256} << 20;   // pictures that wait for their time
constexpr std::size_t kReverseBytes = std::size_t{512} << 20;  // decoded ones, for playing backward
constexpr std::size_t kMostStagedBytes = std::size_t{32} << 20;   // of a channel
constexpr std::size_t kMostReverseBytes = std::size_t{96} << 20;  // in its two windows

// Processor time of this thread.
double ThreadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

std::size_t Share(const cms::PlaybackTransport::View& view, std::size_t bytes, std::size_t most) {
  return std::min(most, bytes / static_cast<std::size_t>(std::max(view.displayedCount, 1)));
}

}  // namespace

// --- What to do next ----------------------------------------------------------------------------

// All channels prepare the picture of one position.
int CCMSPlaybackChannelData::Hold(const View& view, const Place& place, const Standing& standing) {
  if (prepared_ == view.epoch) {
    return kForever;
  }
  if (!place.wanted || IsLost(place.wanted)) {
    pictures_->StageNothing();
  } else if (!shown_.Is(place.wanted)) {
    if (!Prepare(view, place)) {
      return kAtOnce;
    }
  } else if (!stage_.first.Is(Following(view, place.wanted, place.keysOnly))) {
    Unstage();
  }
  // Backward, the pictures that follow come all at once: the clock waits for them, too.
  if (!view.forward && view.running && place.wanted && !place.keysOnly &&
      !ReadyWindow(view, place.wanted)) {
    return kAtOnce;
  }
  prepared_ = view.epoch;
  reported_ = standing;
  transport_->Prepared(index_, view.epoch, standing);
  return kAtOnce;
}

// One piece of the way to the wanted picture; true when it is the next to be shown.
bool CCMSPlaybackChannelData::Prepare(const View& view, const Place& place) {
  if (stage_.first.Is(place.wanted)) {
    return true;
  }
  if (stage_.first) {
    Unstage();
  }
  Work(view, place.wanted, place.keysOnly);
  return false;
}

// The clock stands: the picture may still be missing when it came too late for the others.
int CCMSPlaybackChannelData::Rest(const View& view, const Place& place) {
  if (place.wanted && !IsDone(place.wanted)) {
    Prepare(view, place);
    return kAtOnce;
  }
  return view.atEnd && view.forward ? reader_->LookAgainAfter() : kForever;
}

// Some pictures are made ready in a row, and then none until they are nearly used up.
int CCMSPlaybackChannelData::Play(const View& view, const Place& place) {
  filling_ = (filling_ || stage_.staged <= kFewStaged) &&
             !pictures_->IsFull(Share(view, kStagedBytes, kMostStagedBytes));
  if (filling_) {
    if (target_ && IsOvertaken(view, place)) {
      target_ = {};
    }
    if (!target_) {
      target_ = Aim(view, place);
    }
    if (target_) {
      if (Work(view, target_, place.keysOnly)) {
        target_ = {};
      }
      return kAtOnce;
    }
  }
  if (!view.forward && !place.keysOnly && PrefetchOne(view)) {
    return kAtOnce;
  }
  return UntilDue(view, place);
}

// Up to when a frame is shown among those that are shown at all.
std::int64_t CCMSPlaybackChannelData::EndOf(const FrameRef& frame, bool keysOnly) {
  return track_.ValidUntil(keysOnly ? FrameRef{frame.gop, frame.gop->video.size() - 1} : frame);
}

FrameRef CCMSPlaybackChannelData::Following(const View& view, FrameRef frame, bool keysOnly) {
  do {
    if (view.forward) {
      frame = keysOnly ? track_.KeyAfter(frame) : track_.After(frame);
    } else {
      frame = keysOnly ? track_.KeyBefore(frame) : track_.Before(frame);
    }
  } while (frame && IsLost(frame));
  return frame;
}

std::size_t CCMSPlaybackChannelData::PicturesOfWindow(const View& view) const {
  const std::size_t bytes = Share(view, kReverseBytes, kMostReverseBytes) / 2;
  return std::max<std::size_t>(2, bytes / std::max<std::size_t>(pictureBytes_, 1));
}

// How far the clock goes while a frame is decoded and so many channels share the processors.
double CCMSPlaybackChannelData::MediaTimeOfFrame(const View& view, int channels) const {
  static const double processors = std::max(1U, std::thread::hardware_concurrency());
  return decodeMs_ * std::max(1.0, channels / processors) * view.rate;
}

// Whether a group cannot be decoded backward in the time that it plays. Its first pictures are
// decoded again for each later part of it.
bool CCMSPlaybackChannelData::IsTooSlow(const View& view, const cms::PlaybackGop& gop) const {
  const std::size_t count = gop.video.size();
  const std::size_t parts = (count - 1) / PicturesOfWindow(view) + 1;
  const std::size_t frames = parts * count - PicturesOfWindow(view) * (parts * (parts - 1) / 2);
  const double work = MediaTimeOfFrame(view, view.displayedCount) * static_cast<double>(frames);
  return count > 1 && work > static_cast<double>(gop.video.back().time - gop.video.front().time);
}

// The picture to make ready: the wanted one if it is missing, else the one that follows.
FrameRef CCMSPlaybackChannelData::Aim(const View& view, const Place& place) {
  if (stage_.last) {
    return Following(view, stage_.last, place.keysOnly);
  }
  if (!place.wanted) {  // in a gap: the first picture behind it
    FrameRef next = place.current;
    if (view.forward) {
      next = place.current ? track_.After(place.current) : track_.First();
    }
    return next && IsLost(next) ? Following(view, next, place.keysOnly) : next;
  }
  if (IsDone(place.wanted)) {
    return Following(view, place.wanted, place.keysOnly);
  }
  // Only work that came too late tells that the decoder is behind.
  return view.forward && !place.keysOnly && missed_ > 0 ? AimInTime(view, place) : place.wanted;
}

// Behind the clock: the first frame that can still be decoded while it is the one to show, else the
// next key frame, which costs nothing before it.
FrameRef CCMSPlaybackChannelData::AimInTime(const View& view, const Place& place) {
  const double cost = MediaTimeOfFrame(view, view.working);
  FrameRef target = place.current;
  for (; missed_ < kMostMissed && target.index < target.gop->video.size(); ++target.index) {
    const double ready =
        static_cast<double>(view.position) + cost * static_cast<double>(decoder_.StepsTo(target));
    if (ready < static_cast<double>(track_.ValidUntil(target)) && !IsLost(target)) {
      return target;
    }
  }
  FrameRef key = track_.KeyAfter(place.current);
  missed_ = 0;  // a new beginning
  return key && !IsLost(key) ? key : place.current;
}

// Whether the clock has passed the picture that is being prepared.
bool CCMSPlaybackChannelData::IsOvertaken(const View& view, const Place& place) {
  if (view.forward && !place.keysOnly && view.position >= EndOf(target_, false)) {
    ++missed_;
    return true;
  }
  return place.current && !(target_.Place() == place.current.Place()) &&
         (target_.Time() < place.current.Time()) == view.forward;
}

int CCMSPlaybackChannelData::UntilDue(const View& view, const Place& place) {
  std::int64_t media = kLongestWait * 32;
  if (place.covered) {  // whatever comes next, this ends
    media = view.forward ? track_.ValidUntil(place.current) - view.position
                         : view.position - place.current.Time() + 1;
  }
  if (stage_.first) {
    media = std::min(media, view.forward ? stage_.first.Time() - view.position
                                         : view.position - stage_.firstEnd + 1);
  }
  const double wait = std::ceil(static_cast<double>(media) / view.rate);
  return std::clamp(static_cast<int>(std::min(wait, 1e6)), 1, kLongestWait);
}

// --- Decoding -----------------------------------------------------------------------------------

bool CCMSPlaybackChannelData::IsLost(const FrameRef& frame) const {
  return std::any_of(lost_.begin(), lost_.end(),
                     [&frame](const FrameRef& lost) { return lost.Is(frame); });
}

bool CCMSPlaybackChannelData::Work(const View& view, const FrameRef& target, bool keysOnly) {
  if (!view.forward && !keysOnly) {
    return WorkBackward(view, target);
  }
  if (const FrameRef next = decoder_.NextTowards(target)) {
    if (!DecodeOne(view, next, target)) {
      return false;
    }
  }
  const bool reached = decoder_.Reach(target, keysOnly);
  lostCount_.store(decoder_.Lost(), std::memory_order_relaxed);
  if (!reached) {
    return false;
  }
  Stage(view, target, keysOnly, decoder_.HasPicture(target) ? &decoder_.Picture() : nullptr);
  return true;
}

// One piece of the way to all of the window that ends with or holds `target`; true when it is
// there.
bool CCMSPlaybackChannelData::ReadyWindow(const View& view, const FrameRef& target) {
  if (!window_.Holds(target)) {
    if (ahead_.Holds(target)) {
      std::swap(window_, ahead_);
    } else {
      window_.Begin(target, PicturesOfWindow(view));
    }
    ahead_.Clear();
  }
  if (window_.Next()) {
    DecodeInto(window_, view, target);
    return false;
  }
  return true;
}

bool CCMSPlaybackChannelData::WorkBackward(const View& view, const FrameRef& target) {
  if (!ReadyWindow(view, target)) {
    return false;
  }
  Stage(view, target, false, window_.Picture(target));
  return true;
}

// One frame of a window; true when there was one to decode.
bool CCMSPlaybackChannelData::DecodeInto(cms::ReverseWindow& window, const View& view,
                                         const FrameRef& target) {
  const FrameRef wanted = window.Next();
  if (!wanted) {
    return false;
  }
  if (const FrameRef next = decoder_.NextTowards(wanted)) {
    if (!DecodeOne(view, next, target)) {
      return true;
    }
  }
  window.Take(decoder_);
  while (window.Next() && decoder_.Reach(window.Next())) {
    window.Take(decoder_);
  }
  lostCount_.store(decoder_.Lost(), std::memory_order_relaxed);
  return true;
}

bool CCMSPlaybackChannelData::PrefetchOne(const View& view) {
  if (window_.Next() || !window_.Low()) {
    return false;
  }
  const FrameRef high = track_.Before(window_.Low());
  if (!high) {
    return false;
  }
  if (!ahead_.Ends(high)) {
    ahead_.Begin(high, PicturesOfWindow(view));
  }
  return DecodeInto(ahead_, view, high);
}

// False when the way has become another one.
bool CCMSPlaybackChannelData::DecodeOne(const View& view, const FrameRef& frame,
                                        const FrameRef& target) {
  const double start = ThreadMilliseconds();
  const auto bytes = decoder_.Read(frame);
  _MULTI_PB_GET_FRAME_CALL_BACK_PARAM parameter;
  parameter.site = site_;
  parameter.channel = channel_;
  parameter.time = frame.Time();
  parameter.frameType = frame.Frame().type;
  parameter.serial = view.epoch;
  parameter.wantedTime = target.Time();
  if (sink_->GetFrameCallBack(bytes.data(), static_cast<long>(bytes.size()), &parameter) == 0) {
    return false;
  }
  if (frame.Frame().area >= sizeof(DRVFrameHeader) && !bytes.empty()) {
    DRVFrameHeader header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    otherRate_.store(static_cast<int>(header.flags[0] & cms::kFlagOtherFrameRate),
                     std::memory_order_relaxed);
  }
  decoder_.Decode(frame);
  if (const auto pixels = decoder_.Pixels()) {
    pictureBytes_ = pixels * 3 / 2;  // 4:2:0 as a rule; the window's memory is meant roughly
  }
  videoType_.store(decoder_.VideoType(), std::memory_order_relaxed);
  decodeMs_ += kSmoothing * (ThreadMilliseconds() - start - decodeMs_);
  return true;
}

// A picture that comes when its turn is over is given up; of several in a row the last is shown.
void CCMSPlaybackChannelData::Stage(const View& view, const FrameRef& target, bool keysOnly,
                                    const AVFrame* picture) {
  cms::PictureStore::Picture* const converted =
      picture != nullptr ? pictures_->Convert(*picture) : nullptr;
  if (converted == nullptr) {
    lost_.push_back(target);
    return;
  }
  const std::int64_t end = EndOf(target, keysOnly);
  bool late = false;
  if (view.running && !view.held) {
    const std::int64_t now = transport_->Position();
    late = view.forward ? now >= end : now < target.Time();
    missed_ = late ? missed_ + 1 : 0;
  }
  if (late && missed_ < kMostMissed) {
    return;
  }
  pictures_->Stage(converted, target, end, late);
}
