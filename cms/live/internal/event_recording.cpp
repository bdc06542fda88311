#include "cms/live/internal/event_recording.h"

#include <algorithm>

#include "cms/recording/event_marks.h"
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

unsigned StateOf(const EventMarks& marks) {
  return (marks.deviceEvent ? kEventStateDeviceEvent : 0u) | (marks.alarm ? kEventStateAlarm : 0u) |
         (marks.videoLoss ? kEventStateVideoLoss : 0u);
}

bool Record(FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame, unsigned channel,
            bool mark) {
  return recorder.RecordVideoFrame(frame.header.data(), static_cast<int>(frame.header.size()),
                                   frame.payload.data(), static_cast<int>(frame.payload.size()),
                                   channel, mark);
}

bool RecordAudio(FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame, unsigned channel) {
  return recorder.RecordAudioFrame(frame.header.data(), static_cast<int>(frame.header.size()),
                                   frame.payload.data(), static_cast<int>(frame.payload.size()),
                                   channel);
}

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

void EventRecording::SetPreAlarm(unsigned seconds, bool enabled, std::size_t bytes) {
  preAlarm_ = std::min(seconds, 255u);
  preAlarmEnabled_ = enabled && preAlarm_ > 0;
  kept_ = preAlarmEnabled_
              ? std::make_unique<PreAlarmBuffer>(
                    preAlarm_, bytes != 0 ? bytes : PreAlarmBuffer::DefaultBytes(preAlarm_))
              : nullptr;
}

bool EventRecording::IsOver(const FX_DRVRecorder& recorder, unsigned kind, std::uint64_t now,
                            unsigned durationSeconds) const {
  return running_[kind].own && IsKindRunning(recorder, channel_, kKinds[kind]) &&
         now - running_[kind].lastMark >= std::uint64_t{durationSeconds} * 1000;
}

unsigned EventRecording::OnVideo(FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame,
                                 unsigned state, unsigned durationSeconds) {
  if (frame.header.size() < kDrvHeaderSize) {
    return state;
  }
  const DrvHeader header(frame.header.first<kDrvHeaderSize>());
  const unsigned inHeader = StateOf(ReadEventMarks(header, channel_));
  const unsigned marks = inHeader | state;
  const std::uint64_t now = TickMilliseconds();
  lastFrame_ = now;
  for (unsigned kind = 0; kind < running_.size(); ++kind) {
    running_[kind].own = running_[kind].own && IsKindRunning(recorder, channel_, kKinds[kind]);
    if ((marks & 1u << kind) != 0) {
      running_[kind].lastMark = now;
      if (IsKindOn(recorder, channel_, kKinds[kind]) &&
          !IsKindRunning(recorder, channel_, kKinds[kind])) {
        Begin(recorder, kind, frame.seconds);
      }
    } else if ((frame.key || !kept_) && IsOver(recorder, kind, now, durationSeconds)) {
      StopKind(recorder, channel_, kKinds[kind]);
    }
  }

  const bool markIt = IsKindRunning(recorder, channel_, kRecordDeviceEvent) &&
                      (inHeader & kEventStateDeviceEvent) == 0;
  if (Record(recorder, frame, channel_, markIt)) {
    recordedSince_ = recordedSince_ == 0 ? frame.seconds : recordedSince_;
    if (kept_) {
      kept_->Clear();
    }
  } else {
    recordedSince_ = 0;
    if (kept_) {
      kept_->Add(frame, now);
    }
  }
  return marks;
}

void EventRecording::OnAudio(FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame) {
  if (!RecordAudio(recorder, frame, channel_) && kept_) {
    kept_->Add(frame, TickMilliseconds());
  }
}

void EventRecording::OnClock(FX_DRVRecorder& recorder, unsigned state, unsigned durationSeconds) {
  const std::uint64_t now = TickMilliseconds();
  if (now - lastFrame_ < kSilentMs) {
    return;
  }
  for (unsigned kind = 0; kind < running_.size(); ++kind) {
    if ((state & 1u << kind) == 0 && IsOver(recorder, kind, now, durationSeconds)) {
      StopKind(recorder, channel_, kKinds[kind]);
    }
  }
}

// What the event's record says is what is recorded: that of the kept frames, or, when the channel
// is being recorded anyway, of as many seconds as were asked for and are there.
void EventRecording::Begin(FX_DRVRecorder& recorder, unsigned kind, std::uint32_t seconds) {
  recorder.SetPreAlarm(
      recordedSince_ != 0 && preAlarmEnabled_
          ? std::min(SecondsBetween(recordedSince_, seconds), static_cast<std::uint8_t>(preAlarm_))
          : std::uint8_t{0},
      preAlarmEnabled_);
  if (!StartKind(recorder, channel_, kKinds[kind])) {
    return;
  }
  running_[kind].own = true;
  if (kept_ && !kept_->IsEmpty()) {
    const std::uint32_t since = RecordKept(recorder);
    if (since != 0) {
      recordedSince_ = since;
      recorder.SetEventPreAlarm(channel_, SecondsBetween(since, seconds));
    }
  }
}

// The header time of the first frame that was taken, 0 when none was.
std::uint32_t EventRecording::RecordKept(FX_DRVRecorder& recorder) {
  std::uint32_t since = 0;
  kept_->ForEach([&](const PreAlarmBuffer::Frame& frame) {
    const bool taken =
        frame.audio ? RecordAudio(recorder, frame, channel_)
                    : recorder.RecordPreAlarmFrame(
                          frame.header.data(), static_cast<int>(frame.header.size()),
                          frame.payload.data(), static_cast<int>(frame.payload.size()), channel_);
    if (taken && !frame.audio && since == 0) {
      since = frame.seconds;
    }
  });
  kept_->Clear();
  return since;
}

}  // namespace cms
