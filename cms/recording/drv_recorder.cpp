#include "cms/recording/drv_recorder.h"

#include <algorithm>
#include <utility>

#include "cms/recording/internal/record_text.h"
#include "cms/runtime/clock.h"

namespace FX {
namespace {

constexpr unsigned kEventTypes[] = {1, 3, 4};  // device event, alarm, video loss

}  // namespace

FX_DRVRecorder::FX_DRVRecorder() = default;

FX_DRVRecorder::~FX_DRVRecorder() {
  StopRecordAll();
  StoreLateEvents();
}

bool FX_DRVRecorder::Start(Kind kind, unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(starting_);
  const bool open = IsRecording();
  if (open && running_[kind].Has(channel)) {
    return true;
  }
  if (!open && !StartRecordAgain()) {
    return false;
  }
  if (kind < kEventKinds) {
    OpenEvent(kind, channel);
  }
  running_[kind].Set(channel);
  return true;
}

void FX_DRVRecorder::Stop(Kind kind, unsigned channel) {
  cms::ChannelSet::Check(channel);
  ScopeLock hold(starting_);
  running_[kind].Clear(channel);
  if (kind < kEventKinds) {
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
    for (const Kind kind : {kEvent, kAlarm, kLoss}) {
      StoreEvent(kind, channel);
    }
  }
  StopRecord();
}

void FX_DRVRecorder::OpenEvent(Kind kind, unsigned channel) {
  StoreEvent(kind, channel);
  Event event;
  event.drvPath = GetDrvPath();
  event.kind = kind;
  event.channel = channel;
  {
    ScopeLock hold(lock_);
    event.preAlarm = preAlarmEnabled_ ? preAlarm_ : std::uint8_t{0};
    events_[kind][channel] = event;
  }
  OpenEventRecord(lists_[kind], event);
}

void FX_DRVRecorder::OpenEventRecord(FX_EventDBListWriter& list, const Event& event) {
  std::wstring siteName;
  std::wstring address;
  std::uint16_t port = 0;
  {
    ScopeLock hold(lock_);
    siteName = siteName_;
    address = address_;
    port = port_;
  }
  list.InitialEventDBInfo(event.drvPath.c_str(), event.channel, kEventTypes[event.kind],
                          event.preAlarm, port, siteName.c_str(), address.c_str());
}

void FX_DRVRecorder::StoreEvent(Kind kind, unsigned channel) {
  if (!lists_[kind].IsInitial(channel)) {
    return;
  }
  Event event;
  {
    ScopeLock hold(lock_);
    event = std::exchange(events_[kind][channel], {});
  }
  if (!lists_[kind].WriteDBInfoIntoList(channel)) {
    ScopeLock hold(lock_);
    lateEvents_.push_back(std::move(event));
    status_.lateEvents = lateEvents_.size();
  }
}

// What could not be stored, for example because the disk was full, is tried again in order.
void FX_DRVRecorder::StoreLateEvents() {
  ScopeLock starting(starting_);
  std::size_t stored = 0;
  for (const Event& event : lateEvents_) {
    FX_EventDBListWriter list;
    OpenEventRecord(list, event);
    list.SetRecordTime(event.start, event.channel);
    list.SetRecordTime(event.end, event.channel);
    if (!list.WriteDBInfoIntoList(event.channel)) {
      break;
    }
    ++stored;
  }
  lateEvents_.erase(lateEvents_.begin(), lateEvents_.begin() + static_cast<std::ptrdiff_t>(stored));
  ScopeLock hold(lock_);
  status_.lateEvents = lateEvents_.size();
}

void FX_DRVRecorder::Flush(std::uint32_t age) {
  CLFXDRVWriter::Flush(age);
  StoreLateEvents();
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
  for (unsigned kind = 0; kind < kKinds; ++kind) {
    kinds |= running_[kind].Has(channel) ? 1u << kind : 0u;
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
  return lists_[kEvent].IsInitial(channel);
}

void FX_DRVRecorder::SetRecordTime(std::int64_t time, unsigned channel) {
  SetEventTime(time, channel);
  CLFXDRVWriter::SetRecordTime(time);
}

void FX_DRVRecorder::SetEventTime(std::int64_t time, unsigned channel) {
  cms::ChannelSet::Check(channel);
  constexpr std::int64_t kNoFramesTime = 100;  // as the event's record has it
  ScopeLock hold(lock_);
  for (const Kind kind : {kEvent, kAlarm, kLoss}) {
    if (time > kNoFramesTime && running_[kind].Has(channel)) {
      Event& event = events_[kind][channel];
      cms::WidenRecordTimes(time, event.start, event.end);
      lists_[kind].SetRecordTime(time, channel);
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
  for (const Kind kind : {kEvent, kAlarm, kLoss}) {
    events_[kind][channel].preAlarm = seconds;
    lists_[kind].SetPreAlarm(seconds, channel);
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
