#include "cms/recording/site/internal/event_recording.h"

#include <algorithm>
#include <new>

#include "cms/runtime/clock.h"

namespace cms {
namespace {

using FX::FX_DRVRecorder;

static_assert(EventMarks{true, false, false}.State() == kEventStateDeviceEvent &&
              EventMarks{false, true, false}.State() == kEventStateAlarm &&
              EventMarks{false, false, true}.State() == kEventStateVideoLoss);

std::uint8_t SecondsBetween(std::uint32_t from, std::uint32_t to) {
  return static_cast<std::uint8_t>(to > from ? std::min(to - from, 255u) : 0u);
}

// The tick at which a frame was taken, as far as that is known.
std::uint64_t TakenTick(const FrameView& frame) {
  constexpr std::int64_t kLongestWayMs = 10'000;  // else a clock was set
  const std::int64_t late = frame.timeUs == 0 ? 0 : (WallMicroseconds() - frame.timeUs) / 1000;
  return frame.arrivalUs / 1000 -
         static_cast<std::uint64_t>(late > 0 && late <= kLongestWayMs ? late : 0);
}

}  // namespace

void EventRecording::SetPreAlarm(const FX_DRVRecorder& recorder, unsigned seconds, bool enabled,
                                 std::size_t bytes) {
  preAlarm_ = enabled ? std::min(seconds, 255u) : 0;
  preAlarmEnabled_ = preAlarm_ > 0;
  bytes_ = bytes;
  kept_ = nullptr;
  Keep(recorder);
}

void EventRecording::FollowStates(const FX_DRVRecorder& recorder) {
  for (const RecordKind kind : kEventKinds) {
    Running& event = EventOf(kind);
    event.due = event.due && recorder.IsStateOn(kind, channel_);
  }
  try {
    Keep(recorder);
  } catch (const std::bad_alloc&) {
    kept_ = nullptr;  // events begin with the key frame behind their mark
  }
}

void EventRecording::Keep(const FX_DRVRecorder& recorder) {
  const bool mayBegin =
      std::any_of(kEventKinds.begin(), kEventKinds.end(),
                  [&](const RecordKind kind) { return recorder.IsStateOn(kind, channel_); });
  if (!preAlarmEnabled_ && !mayBegin) {
    kept_ = nullptr;
  } else if (!kept_) {
    kept_ = std::make_unique<PreAlarmBuffer>(
        preAlarm_, bytes_ != 0 ? bytes_ : PreAlarmBuffer::DefaultBytes(preAlarm_));
  }
}

bool EventRecording::Running::IsPast(std::uint64_t tick, unsigned durationSeconds) const {
  return tick >= lastMark + std::uint64_t{durationSeconds} * 1000;
}

bool EventRecording::IsOver(const FX_DRVRecorder& recorder, RecordKind kind, std::uint64_t now,
                            std::uint64_t taken, unsigned durationSeconds) const {
  const Running& event = running_[IndexOf(kind)];
  if (!event.own || !event.IsPast(taken, durationSeconds) || !recorder.IsRunning(kind, channel_)) {
    return false;
  }
  return event.recorded || now - event.lastMark >= kLongestGroupMs ||
         recorder.GetRecordingStatus().state == RecordingState::kFailed;
}

EventRecording::Decision EventRecording::Decide(FX_DRVRecorder& recorder, const FrameView& frame,
                                                unsigned state, unsigned durationSeconds) {
  const unsigned marks = frame.marks.State() | state;
  const std::uint64_t now = frame.arrivalUs / 1000;
  const std::uint64_t taken = TakenTick(frame);
  lastFrame_ = now;
  for (const RecordKind kind : kEventKinds) {
    Running& event = EventOf(kind);
    const bool runs = recorder.IsRunning(kind, channel_);
    const bool marked = (marks & BitOf(kind)) != 0;
    event.own = event.own && runs;
    if (marked) {
      event.lastMark = std::max(event.lastMark, (state & BitOf(kind)) != 0 ? now : taken);
      event.due = !runs && recorder.IsStateOn(kind, channel_);
    } else if (event.IsPast(taken, durationSeconds)) {
      event.due = false;
    }
    if (event.due && now >= retryTick_) {
      event.own = Begin(recorder, kind, frame.seconds);
      retryTick_ = event.own ? 0 : now + kRetryMs;
    } else if (!marked && (frame.key || !kept_ || now - event.lastMark >= kLongestGroupMs) &&
               IsOver(recorder, kind, now, taken, durationSeconds)) {
      recorder.Stop(kind, channel_);
    }
  }
  const bool markIt =
      recorder.IsRunning(RecordKind::kDeviceEvent, channel_) && !frame.marks.deviceEvent;
  return {marks, markIt ? FX_DRVRecorder::FrameUse::kMarked : FX_DRVRecorder::FrameUse::kPlain};
}

void EventRecording::NoteVideo(FX_DRVRecorder& recorder, const FrameView& frame, bool recorded) {
  if (!recorded) {
    recordedSince_ = 0;
    recorder.SetEventTime(frame.seconds, channel_);
    if (kept_) {
      kept_->Add(frame);
    }
    return;
  }
  recordedSince_ = recordedSince_ == 0 ? frame.seconds : recordedSince_;
  for (Running& event : running_) {
    event.recorded = true;
  }
  if (kept_) {
    kept_->Clear();
  }
}

void EventRecording::NoteAudio(const FrameView& frame, bool recorded) {
  if (!recorded && kept_) {
    kept_->Add(frame);
  }
}

void EventRecording::OnClock(FX_DRVRecorder& recorder, unsigned state, unsigned durationSeconds) {
  const std::uint64_t now = TickMilliseconds();
  if (now - lastFrame_ < kSilentMs) {
    return;
  }
  for (const RecordKind kind : kEventKinds) {
    if ((state & BitOf(kind)) != 0) {
      continue;
    }
    if (Running& event = EventOf(kind); event.IsPast(now, durationSeconds)) {
      event.due = false;
    }
    if (IsOver(recorder, kind, now, now, durationSeconds)) {
      recorder.Stop(kind, channel_);
    }
  }
}

// What was kept is in front of the first frame to come; without it that frame begins the event.
bool EventRecording::Start(FX_DRVRecorder& recorder, RecordKind kind) {
  EventOf(kind).own = false;
  if (recorder.IsRunning(kind, channel_)) {
    return recorder.Start(kind, channel_);  // opens a file when none is
  }
  const std::int64_t now = WallSeconds();
  if (!Begin(recorder, kind, static_cast<std::uint32_t>(now))) {
    return false;
  }
  if (recordedSince_ != 0) {
    recorder.SetEventTime(now, channel_);
  }
  return true;
}

void EventRecording::Forget(RecordKind kind) {
  Running& event = EventOf(kind);
  event.own = false;
  event.due = false;
}

bool EventRecording::IsDue() const {
  return std::any_of(running_.begin(), running_.end(), [](const auto& event) { return event.due; });
}

// What the event's record says is what is recorded: that of the kept frames, or, when the channel
// is being recorded anyway, of as many seconds as were asked for and are there.
bool EventRecording::Begin(FX_DRVRecorder& recorder, RecordKind kind, std::uint32_t seconds) {
  if (!recorder.IsRecording(channel_, true)) {
    recordedSince_ = 0;
  }
  recorder.SetPreAlarm(
      recordedSince_ != 0 && preAlarmEnabled_
          ? std::min(SecondsBetween(recordedSince_, seconds), static_cast<std::uint8_t>(preAlarm_))
          : std::uint8_t{0},
      preAlarmEnabled_);
  if (!recorder.Start(kind, channel_)) {
    return false;
  }
  Running& event = EventOf(kind);
  event.due = false;
  event.recorded = false;
  if (kept_ && !kept_->IsEmpty()) {
    const std::uint32_t since = RecordKept(recorder);
    if (since != 0) {
      event.recorded = true;
      recordedSince_ = since;
      recorder.SetEventPreAlarm(channel_, SecondsBetween(since, seconds));
    }
  }
  return true;
}

// The header time of the first frame that was taken, 0 when none was.
std::uint32_t EventRecording::RecordKept(FX_DRVRecorder& recorder) {
  std::uint32_t since = 0;
  kept_->ForEach([&](const FrameView& frame) {
    const bool taken = recorder.RecordFrame(frame, FX_DRVRecorder::FrameUse::kBeforeEvent);
    if (taken && !frame.audio && since == 0) {
      since = frame.seconds;
    }
  });
  kept_->Clear();
  return since;
}

}  // namespace cms
