#include "cms/recording/drv_recorder.h"

#include <algorithm>

#include "cms/recording/event_db_list_writer.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/internal/recorder_state.h"
#include "cms/recording/internal/recording_file.h"

namespace FX {

FX_DRVRecorder::FX_DRVRecorder()
    : kinds_(std::make_unique<Kinds>()), frames_(std::make_unique<Frames>()) {
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
  kinds_->running[IndexOf(kind)].Set(channel);
  return true;
}

void FX_DRVRecorder::Stop(cms::RecordKind kind, unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(starting_);
  kinds_->running[IndexOf(kind)].Clear(channel);
  if (IsEvent(kind)) {
    StoreEvent(kind, channel);
  }
  if (!AnyRuns()) {
    StopRecord();
  }
}

void FX_DRVRecorder::StopRecordAll() {
  ScopeLock hold(starting_);
  for (auto& set : kinds_->running) {
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
  Frames::Event& event = frames_->EventOf(kind, channel);
  event.isOpen = true;
  event.drvPath = FrontOfPath();
  event.preAlarm = frames_->preAlarmEnabled ? frames_->preAlarm : std::uint8_t{0};
}

void FX_DRVRecorder::StoreEvent(cms::RecordKind kind, unsigned channel) {
  ScopeLock hold(lock_);
  PassOnEvent(kind, channel);
  frames_->EventOf(kind, channel) = {};
}

// An event without frames leaves no record.
void FX_DRVRecorder::PassOnEvent(cms::RecordKind kind, unsigned channel) {
  const Frames::Event event = frames_->EventOf(kind, channel);
  if (event.start == 0) {
    return;
  }
  DoOnDisk([event, kind, channel, device = Device(), root = DataRoot()] {
    const cms::TryDatabaseLock database(cms::EventDatabaseLock());
    if (!database) {
      return cms::DiskTaskResult::kBusy;
    }
    FX_EventDBListWriter list;
    list.SetDataRoot(root);
    list.InitialEventDBInfo(event.drvPath.c_str(), channel, EventTypeOf(kind), event.preAlarm,
                            device.port, device.siteName.c_str(), device.address.c_str());
    list.SetRecordTime(event.start, channel);
    list.SetRecordTime(event.end, channel);
    return list.WriteDBInfoIntoList(channel) ? cms::DiskTaskResult::kDone
                                             : cms::DiskTaskResult::kFailed;
  });
}

void FX_DRVRecorder::TurnOffAllRecordState() {
  for (auto& set : kinds_->enabled) {
    set.ClearAll();
  }
}

bool FX_DRVRecorder::IsRunning(cms::RecordKind kind, unsigned channel) const {
  return kinds_->running[IndexOf(kind)].Has(channel);
}
bool FX_DRVRecorder::IsRunning(cms::RecordKind kind) const {
  return kinds_->running[IndexOf(kind)].Any();
}
bool FX_DRVRecorder::IsStateOn(cms::RecordKind kind, unsigned channel) const {
  return kinds_->enabled[IndexOf(kind)].Has(channel);
}
bool FX_DRVRecorder::IsStateOn(cms::RecordKind kind) const {
  return kinds_->enabled[IndexOf(kind)].Any();
}
void FX_DRVRecorder::TurnOnState(cms::RecordKind kind, unsigned channel) {
  kinds_->enabled[IndexOf(kind)].Set(channel);
}
void FX_DRVRecorder::TurnOffState(cms::RecordKind kind, unsigned channel) {
  kinds_->enabled[IndexOf(kind)].Clear(channel);
}

bool FX_DRVRecorder::AnyRuns() const {
  return std::any_of(kinds_->running.begin(), kinds_->running.end(),
                     [](const auto& set) { return set.Any(); });
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
  return frames_->EventOf(kDeviceEvent, channel).isOpen;
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
      Frames::Event& event = frames_->EventOf(kind, channel);
      cms::WidenRecordTimes(time, event.start, event.end);
    }
  }
}

void FX_DRVRecorder::SetPreAlarm(std::uint8_t seconds, bool enabled) {
  ScopeLock hold(lock_);
  frames_->preAlarm = seconds;
  frames_->preAlarmEnabled = enabled;
}

void FX_DRVRecorder::SetEventPreAlarm(unsigned channel, std::uint8_t seconds) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(lock_);
  for (const cms::RecordKind kind : cms::kEventKinds) {
    frames_->EventOf(kind, channel).preAlarm = seconds;
  }
}

void FX_DRVRecorder::SetRecParam(const stRecordParam& param) {
  ScopeLock hold(lock_);
  frames_->param = param;
  frames_->param.path[std::size(frames_->param.path) - 1] = L'\0';
  SetTarget(frames_->param.path, frames_->param.fileSizeMiB, frames_->param.secondLimit);
}

stRecordParam FX_DRVRecorder::GetRecParam() const {
  ScopeLock hold(lock_);
  return frames_->param;
}

}  // namespace FX
