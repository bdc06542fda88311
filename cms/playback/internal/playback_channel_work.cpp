// What a channel's reader thread does next, and how it comes to pictures.
#include <algorithm>
#include <cstring>
#include <ctime>

#include "cms/live/media/frame_header.h"
#include "cms/playback/internal/playback_channel_data.h"

using cms::FrameRef;

namespace {

constexpr std::size_t kFewStaged = 1;

// Processor time of this thread.
double ThreadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

}  // namespace

// --- What to do next ----------------------------------------------------------------------------

// All channels prepare the picture of one position.
int CCMSPlaybackChannelData::Hold(const View& view, const Place& place, const Standing& standing) {
  if (prepared_ == view.epoch) {
    return kForever;
  }
  if (!place.wanted || plan_.IsLost(place.wanted)) {
    pictures_->StageNothing();
  } else if (!shown_.Is(place.wanted)) {
    if (!Prepare(view, place)) {
      return kAtOnce;
    }
  } else if (!stage_.first.Is(plan_.Following(view, place.wanted, place.keysOnly))) {
    Unstage();
  }
  // Backward, the pictures that follow come all at once: the clock waits for them, too.
  if (!view.forward && view.running && place.wanted && !place.keysOnly &&
      !ReadyBackward(view, place.wanted)) {
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
             !pictures_->IsFull(cms::PlaybackPlan::StagedBytes(view));
  if (filling_) {
    if (target_ && plan_.IsOvertaken(view, place, target_)) {
      target_ = {};
    }
    if (!target_) {
      target_ = plan_.Aim(view, place, stage_.last, shown_,
                          [this](const FrameRef& frame) { return decoder_.StepsTo(frame); });
    }
    if (target_) {
      if (Work(view, target_, place.keysOnly)) {
        target_ = {};
      }
      return kAtOnce;
    }
  }
  if (!view.forward && !place.keysOnly &&
      reverse_.Prefetch(plan_.PicturesOfWindow(view), Decoding(view))) {
    return kAtOnce;
  }
  return plan_.UntilDue(view, place, stage_);
}

// --- Decoding -----------------------------------------------------------------------------------

bool CCMSPlaybackChannelData::Work(const View& view, const FrameRef& target, bool keysOnly) {
  if (!view.forward && !keysOnly) {
    if (!ReadyBackward(view, target)) {
      return false;
    }
    Stage(view, target, false, reverse_.Picture(target));
    return true;
  }
  if (const FrameRef next = decoder_.NextTowards(target)) {
    if (!DecodeOne(view, next, target)) {
      return false;
    }
  }
  if (!decoder_.Reach(target, keysOnly)) {
    return false;
  }
  Stage(view, target, keysOnly, decoder_.HasPicture(target) ? &decoder_.Picture() : nullptr);
  return true;
}

bool CCMSPlaybackChannelData::ReadyBackward(const View& view, const FrameRef& target) {
  return reverse_.Ready(target, plan_.PicturesOfWindow(view), Decoding(view));
}

cms::ReverseDecoder::DecodeOne CCMSPlaybackChannelData::Decoding(const View& view) {
  return [this, &view](const FrameRef& frame, const FrameRef& target) {
    return DecodeOne(view, frame, target);
  };
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
  videoType_.store(decoder_.VideoType(), std::memory_order_relaxed);
  plan_.Decoded(ThreadMilliseconds() - start, decoder_.Pixels());
  return true;
}

// A picture that comes when its turn is over is given up; of several in a row the last is shown.
void CCMSPlaybackChannelData::Stage(const View& view, const FrameRef& target, bool keysOnly,
                                    const AVFrame* picture) {
  cms::PictureStore::Picture* const converted =
      picture != nullptr ? pictures_->Convert(*picture) : nullptr;
  if (converted == nullptr) {
    plan_.Lose(target);
    return;
  }
  const std::int64_t end = plan_.EndOf(target, keysOnly);
  const bool late =
      view.running && !view.held && plan_.IsLate(view, target, end, transport_->Position());
  if (late && !plan_.MustShow()) {
    return;
  }
  pictures_->Stage(converted, target, end, late);
}
