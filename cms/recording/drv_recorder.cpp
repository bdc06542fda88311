#include "cms/recording/drv_recorder.h"

#include <algorithm>
#include <utility>

#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/internal/recording_file.h"

namespace FX {

FX_DRVRecorder::FX_DRVRecorder() {
  AtExit([this] { StopAtExit(); });
}

FX_DRVRecorder::~FX_DRVRecorder() {
  NoExitStop();
  StopRecordAll();
}

void FX_DRVRecorder::StopAtExit() {
  TurnOffAllRecordState();
  StopRecordAll();
}

bool FX_DRVRecorder::Start(cms::RecordKind kind, unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(starting_);
  const bool goesOn = GoesOn();
  if (goesOn && IsRunning(kind, channel)) {
    return true;
  }
  if (!goesOn && !StartRecordAgain()) {
    return false;
  }
  if (IsEvent(kind)) {
    OpenEvent(kind, channel);
  }
  running_[IndexOf(kind)].Set(channel);
  return true;
}

void FX_DRVRecorder::Stop(cms::RecordKind kind, unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(starting_);
  running_[IndexOf(kind)].Clear(channel);
  if (IsEvent(kind)) {
    StoreEvent(kind, channel);
  }
  if (!AnyRuns()) {
    StopRecord();
  }
}

void FX_DRVRecorder::StopRecordAll() {
  ScopeLock hold(starting_);
  for (auto& set : running_) {
    set.ClearAll();
  }
  for (unsigned channel = 0; channel < cms::kChannels; ++channel) {
    for (const cms::RecordKind kind : cms::kEventKinds) {
      StoreEvent(kind, channel);
    }
  }
  StopRecord();
}

void FX_DRVRecorder::OpenEvent(cms::RecordKind kind, unsigned channel) {
  StoreEvent(kind, channel);
  ScopeLock hold(lock_);
  Event& event = EventOf(kind, channel);
  event.isOpen = true;
  event.drvPath = FrontOfPath();
  event.preAlarm = preAlarmEnabled_ ? preAlarm_ : std::uint8_t{0};
}

// An event without frames leaves no record.
void FX_DRVRecorder::StoreEvent(cms::RecordKind kind, unsigned channel) {
  ScopeLock hold(lock_);
  const Event event = std::exchange(EventOf(kind, channel), {});
  if (event.start == 0) {
    return;
  }
  DoOnDisk([event, kind, channel, device = Device()] {
    const cms::TryDatabaseLock database(cms::EventDatabaseLock());
    if (!database) {
      return cms::DiskTaskResult::kBusy;
    }
    FX_EventDBListWriter list;
    list.InitialEventDBInfo(event.drvPath.c_str(), channel, EventTypeOf(kind), event.preAlarm,
                            device.port, device.siteName.c_str(), device.address.c_str());
    list.SetRecordTime(event.start, channel);
    list.SetRecordTime(event.end, channel);
    return list.WriteDBInfoIntoList(channel) ? cms::DiskTaskResult::kDone
                                             : cms::DiskTaskResult::kFailed;
  });
}

void FX_DRVRecorder::TurnOffAllRecordState() {
  for (auto& set : enabled_) {
    set.ClearAll();
  }
}

bool FX_DRVRecorder::AnyRuns() const {
  return std::any_of(running_.begin(), running_.end(), [](const auto& set) { return set.Any(); });
}

unsigned FX_DRVRecorder::RunningKinds(unsigned channel) const {
  unsigned kinds = 0;
  for (const cms::RecordKind kind : cms::kRecordKinds) {
    kinds |= IsRunning(kind, channel) ? BitOf(kind) : 0u;
  }
  return kinds;
}

bool FX_DRVRecorder::IsRecording() {
  return CLFXDRVWriter::IsRecording();
}

bool FX_DRVRecorder::IsRecording(unsigned channel, bool requireOpenFile) {
  return RunningKinds(channel) != 0 && (!requireOpenFile || IsRecording());
}

bool FX_DRVRecorder::GetDeviceEventRecStatus(unsigned channel) {
  return IsDeviceEventRecording(channel) && IsRecording();
}

bool FX_DRVRecorder::GetDeviceEventStatus(unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(lock_);
  return EventOf(kDeviceEvent, channel).isOpen;
}

void FX_DRVRecorder::SetRecordTime(std::int64_t time, unsigned channel) {
  ScopeLock hold(lock_);
  SetEventTime(time, channel);
  CLFXDRVWriter::SetRecordTime(time);
}

void FX_DRVRecorder::SetEventTime(std::int64_t time, unsigned channel) {
  cms::ChannelSet::Check(channel);
  constexpr std::int64_t kNoFramesTime = 100;  // as the event's record has it
  ScopeLock hold(lock_);
  for (const cms::RecordKind kind : cms::kEventKinds) {
    if (time > kNoFramesTime && IsRunning(kind, channel)) {
      Event& event = EventOf(kind, channel);
      cms::WidenRecordTimes(time, event.start, event.end);
    }
  }
}

void FX_DRVRecorder::SetPreAlarm(std::uint8_t seconds, bool enabled) {
  ScopeLock hold(lock_);
  preAlarm_ = seconds;
  preAlarmEnabled_ = enabled;
}

void FX_DRVRecorder::SetEventPreAlarm(unsigned channel, std::uint8_t seconds) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(lock_);
  for (const cms::RecordKind kind : cms::kEventKinds) {
    EventOf(kind, channel).preAlarm = seconds;
  }
}

void FX_DRVRecorder::SetRecParam(const stRecordParam& param) {
  ScopeLock hold(lock_);
  param_ = param;
  param_.path[std::size(param_.path) - 1] = L'\0';
  SetTarget(param_.path, param_.fileSizeMiB, param_.secondLimit);
}

stRecordParam FX_DRVRecorder::GetRecParam() const {
  ScopeLock hold(lock_);
  return param_;
}

}  // namespace FX
