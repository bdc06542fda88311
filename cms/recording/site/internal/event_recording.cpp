#include "cms/recording/site/internal/event_recording.h"

#include <algorithm>
#include <new>

#include "cms/runtime/clock.h"

namespace cms {
namespace {

using FX::FX_DRVRecorder;

struct KindOperations {
  int kind;
  bool (FX_DRVRecorder::*start)(unsigned);
  void (FX_DRVRecorder::*stop)(unsigned);
  bool (FX_DRVRecorder::*isRunning)(unsigned) const;
  void (FX_DRVRecorder::*turnOn)(unsigned);
  void (FX_DRVRecorder::*turnOff)(unsigned);
  bool (FX_DRVRecorder::*isOn)(unsigned) const;
};

constexpr KindOperations kOperations[] = {
    {kRecordDeviceEvent, &FX_DRVRecorder::StartDeviceEventRecord,
     &FX_DRVRecorder::StopDeviceEventRecord, &FX_DRVRecorder::IsDeviceEventRecording,
     &FX_DRVRecorder::TurnOnDeviceEventRecState, &FX_DRVRecorder::TurnOffDeviceEventRecState,
     &FX_DRVRecorder::IsDeviceEventRecStateOn},
    {kRecordAlarm, &FX_DRVRecorder::StartDeviceAlarmRecord, &FX_DRVRecorder::StopDeviceAlarmRecord,
     &FX_DRVRecorder::IsDeviceAlarmRecording, &FX_DRVRecorder::TurnOnDeviceAlarmRecState,
     &FX_DRVRecorder::TurnOffDeviceAlarmRecState, &FX_DRVRecorder::IsDeviceAlarmRecStateOn},
    {kRecordVideoLoss, &FX_DRVRecorder::StartDeviceVideoLossRecord,
     &FX_DRVRecorder::StopDeviceVideoLossRecord, &FX_DRVRecorder::IsDeviceVideoLossRecording,
     &FX_DRVRecorder::TurnOnDeviceVideoLossRecState,
     &FX_DRVRecorder::TurnOffDeviceVideoLossRecState, &FX_DRVRecorder::IsDeviceVideoLossRecStateOn},
    {kRecordInstant, &FX_DRVRecorder::StartInstNormalRecord, &FX_DRVRecorder::StopInstNormalRecord,
     &FX_DRVRecorder::IsInstNormalRecording, &FX_DRVRecorder::TurnOnInstNormalRecState,
     &FX_DRVRecorder::TurnOffInstNormalRecState, &FX_DRVRecorder::IsInstNormalRecStateOn},
    {kRecordSchedule, &FX_DRVRecorder::StartScheNormalRecord, &FX_DRVRecorder::StopScheNormalRecord,
     &FX_DRVRecorder::IsScheNormalRecording, &FX_DRVRecorder::TurnOnScheNormalRecState,
     &FX_DRVRecorder::TurnOffScheNormalRecState, &FX_DRVRecorder::IsScheNormalRecStateOn},
};

const KindOperations* Operations(int kind) {
  const auto* const found =
      std::find_if(std::begin(kOperations), std::end(kOperations),
                   [kind](const KindOperations& each) { return each.kind == kind; });
  return found == std::end(kOperations) ? nullptr : found;
}

static_assert(EventMarks{true, false, false}.State() == kEventStateDeviceEvent &&
              EventMarks{false, true, false}.State() == kEventStateAlarm &&
              EventMarks{false, false, true}.State() == kEventStateVideoLoss);

std::uint8_t SecondsBetween(std::uint32_t from, std::uint32_t to) {
  return static_cast<std::uint8_t>(to > from ? std::min(to - from, 255u) : 0u);
}

}  // namespace

bool StartKind(FX_DRVRecorder& recorder, unsigned channel, int kind) {
  const KindOperations* const operations = Operations(kind);
  return operations != nullptr && (recorder.*operations->start)(channel);
}

void StopKind(FX_DRVRecorder& recorder, unsigned channel, int kind) {
  if (const KindOperations* const operations = Operations(kind)) {
    (recorder.*operations->stop)(channel);
  }
}

bool IsKindRunning(const FX_DRVRecorder& recorder, unsigned channel, int kind) {
  const KindOperations* const operations = Operations(kind);
  return operations != nullptr && (recorder.*operations->isRunning)(channel);
}

void TurnKind(FX_DRVRecorder& recorder, unsigned channel, int kind, bool on) {
  if (const KindOperations* const operations = Operations(kind)) {
    (recorder.*(on ? operations->turnOn : operations->turnOff))(channel);
  }
}

bool IsKindOn(const FX_DRVRecorder& recorder, unsigned channel, int kind) {
  const KindOperations* const operations = Operations(kind);
  return operations != nullptr && (recorder.*operations->isOn)(channel);
}

bool IsEventKind(int kind) {
  return std::find(std::begin(EventRecording::kKinds), std::end(EventRecording::kKinds), kind) !=
         std::end(EventRecording::kKinds);
}

void EventRecording::SetPreAlarm(const FX_DRVRecorder& recorder, unsigned seconds, bool enabled,
                                 std::size_t bytes) {
  preAlarm_ = enabled ? std::min(seconds, 255u) : 0;
  preAlarmEnabled_ = preAlarm_ > 0;
  bytes_ = bytes;
  kept_ = nullptr;
  Keep(recorder);
}

void EventRecording::FollowStates(const FX_DRVRecorder& recorder) {
  for (unsigned kind = 0; kind < running_.size(); ++kind) {
    running_[kind].due = running_[kind].due && IsKindOn(recorder, channel_, kKinds[kind]);
  }
  try {
    Keep(recorder);
  } catch (const std::bad_alloc&) {
    kept_ = nullptr;  // events begin with the key frame behind their mark
  }
}

void EventRecording::Keep(const FX_DRVRecorder& recorder) {
  const bool mayBegin = std::any_of(std::begin(kKinds), std::end(kKinds), [&](const int kind) {
    return IsKindOn(recorder, channel_, kind);
  });
  if (!preAlarmEnabled_ && !mayBegin) {
    kept_ = nullptr;
  } else if (!kept_) {
    kept_ = std::make_unique<PreAlarmBuffer>(
        preAlarm_, bytes_ != 0 ? bytes_ : PreAlarmBuffer::DefaultBytes(preAlarm_));
  }
}

bool EventRecording::IsPast(unsigned kind, std::uint64_t now, unsigned durationSeconds) const {
  return now - running_[kind].lastMark >= std::uint64_t{durationSeconds} * 1000;
}

bool EventRecording::IsOver(const FX_DRVRecorder& recorder, unsigned kind, std::uint64_t now,
                            unsigned durationSeconds) const {
  const Running& event = running_[kind];
  if (!event.own || !IsPast(kind, now, durationSeconds) ||
      !IsKindRunning(recorder, channel_, kKinds[kind])) {
    return false;
  }
  return event.recorded || now - event.lastMark >= kLongestGroupMs ||
         recorder.GetRecordingStatus().state == RecordingState::kFailed;
}

EventRecording::Decision EventRecording::Decide(FX_DRVRecorder& recorder, const FrameView& frame,
                                                unsigned state, unsigned durationSeconds) {
  const unsigned marks = frame.marks.State() | state;
  const std::uint64_t now = frame.arrivalUs / 1000;
  lastFrame_ = now;
  for (unsigned kind = 0; kind < running_.size(); ++kind) {
    Running& event = running_[kind];
    const bool runs = IsKindRunning(recorder, channel_, kKinds[kind]);
    const bool marked = (marks & 1u << kind) != 0;
    event.own = event.own && runs;
    if (marked) {
      event.lastMark = now;
      event.due = !runs && IsKindOn(recorder, channel_, kKinds[kind]);
    } else if (IsPast(kind, now, durationSeconds)) {
      event.due = false;
    }
    if (event.due && now >= retryTick_) {
      event.own = Begin(recorder, kind, frame.seconds);
      retryTick_ = event.own ? 0 : now + kRetryMs;
    } else if (!marked && (frame.key || !kept_ || now - event.lastMark >= kLongestGroupMs) &&
               IsOver(recorder, kind, now, durationSeconds)) {
      StopKind(recorder, channel_, kKinds[kind]);
    }
  }
  const bool markIt =
      IsKindRunning(recorder, channel_, kRecordDeviceEvent) && !frame.marks.deviceEvent;
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
  for (unsigned kind = 0; kind < running_.size(); ++kind) {
    if ((state & 1u << kind) != 0) {
      continue;
    }
    if (IsPast(kind, now, durationSeconds)) {
      running_[kind].due = false;
    }
    if (IsOver(recorder, kind, now, durationSeconds)) {
      StopKind(recorder, channel_, kKinds[kind]);
    }
  }
}

// What was kept is in front of the first frame to come; without it that frame begins the event.
bool EventRecording::Start(FX_DRVRecorder& recorder, int kind) {
  const auto number =
      static_cast<unsigned>(std::find(std::begin(kKinds), std::end(kKinds), kind) - kKinds);
  running_[number].own = false;
  if (IsKindRunning(recorder, channel_, kind)) {
    return StartKind(recorder, channel_, kind);  // opens a file when none is
  }
  const std::int64_t now = WallSeconds();
  if (!Begin(recorder, number, static_cast<std::uint32_t>(now))) {
    return false;
  }
  if (recordedSince_ != 0) {
    recorder.SetEventTime(now, channel_);
  }
  return true;
}

void EventRecording::Forget(int kind) {
  for (unsigned number = 0; number < running_.size(); ++number) {
    if (kKinds[number] == kind) {
      running_[number].own = false;
      running_[number].due = false;
    }
  }
}

bool EventRecording::IsDue() const {
  return std::any_of(running_.begin(), running_.end(), [](const auto& event) { return event.due; });
}

// What the event's record says is what is recorded: that of the kept frames, or, when the channel
// is being recorded anyway, of as many seconds as were asked for and are there.
bool EventRecording::Begin(FX_DRVRecorder& recorder, unsigned kind, std::uint32_t seconds) {
  if (!recorder.IsRecording(channel_, true)) {
    recordedSince_ = 0;
  }
  recorder.SetPreAlarm(
      recordedSince_ != 0 && preAlarmEnabled_
          ? std::min(SecondsBetween(recordedSince_, seconds), static_cast<std::uint8_t>(preAlarm_))
          : std::uint8_t{0},
      preAlarmEnabled_);
  if (!StartKind(recorder, channel_, kKinds[kind])) {
    return false;
  }
  running_[kind].due = false;
  running_[kind].recorded = false;
  if (kept_ && !kept_->IsEmpty()) {
    const std::uint32_t since = RecordKept(recorder);
    if (since != 0) {
      running_[kind].recorded = true;
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
