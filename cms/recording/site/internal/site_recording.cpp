#include "cms/recording/site/internal/site_recording.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr int kOpenMs = 3000;  // by hand one is told whether it could begin

// A disk that will not take more for a while.
bool IsLasting(int error) {
  return error == ENOSPC || error == EDQUOT || error == EROFS;
}

}  // namespace

SiteRecording::SiteRecording(ConnectionSource connection) : connection_(std::move(connection)) {
  recorder_.NeverWaitForDisk();
  recorder_.RememberFinished();
  events_.reserve(kChannels);
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    events_.emplace_back(channel);
  }
}

SiteRecording::~SiteRecording() {
  StopAll();
  Turns::Recordings().Remove(this);
  ScopeLock hold(turning_);
  LookForGaps();
  CollectFinished();
  StopMoving();
}

void SiteRecording::SetDataRoot(const std::string& folder) {
  recorder_.SetDataRoot(folder);
  if (const stRecordParam param = recorder_.GetRecParam(); param.path[0] != L'\0') {
    recorder_.SetRecParam(param);
  }
  {
    ScopeLock hold(deviceLock_);
    dataRoot_ = WholeDataRoot(folder);
  }
  ScopeLock turn(turning_);
  gaps_.SetDataRoot(folder);
}

std::string SiteRecording::DataRoot() const {
  ScopeLock hold(deviceLock_);
  return dataRoot_;
}

void SiteRecording::SetParam(const stRecordParam& param) {
  recorder_.SetRecParam(param);
  ScopeLock hold(deviceLock_);
  const stRecordParam kept = recorder_.GetRecParam();
  const auto name = SplitAtLastSeparator(kept.path).name;
  site_.number = static_cast<std::uint32_t>(SiteNumberOf(name).value_or(0));
}

void SiteRecording::SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port) {
  recorder_.SetDevice(address, siteName, port);
  ScopeLock hold(deviceLock_);
  site_.address = TextOf(address);
  site_.name = TextOf(siteName);
  site_.port = port;
}

void SiteRecording::SetPreAlarm(unsigned channel, unsigned seconds, bool enabled,
                                std::size_t bytes) {
  ScopeLock hold(lock_);
  events_[channel].SetPreAlarm(recorder_, seconds, enabled, bytes);
}

bool SiteRecording::IsAlwaysWanted() const {
  return recorder_.IsInstNormalRecording() || recorder_.IsScheNormalRecording() || IsScheduled();
}

bool SiteRecording::IsWanted() const {
  return IsAlwaysWanted() || recorder_.IsDeviceEventRecording() ||
         recorder_.IsDeviceAlarmRecording() || recorder_.IsDeviceVideoLossRecording() || due_.Any();
}

bool SiteRecording::IsArmed() const {
  return IsWanted() || recorder_.IsDeviceEventRecStateOn() || recorder_.IsDeviceAlarmRecStateOn() ||
         recorder_.IsDeviceVideoLossRecStateOn();
}

void SiteRecording::Wake() {
  if (IsAlwaysWanted()) {
    unseen_ = true;
  }
  Turns::Recordings().Add(this, TickMilliseconds());
}

bool SiteRecording::Start(unsigned channel, RecordKind kind) {
  const bool ran = recorder_.IsRunning(kind, channel);
  bool started = false;
  if (IsEvent(kind)) {
    ScopeLock hold(lock_);  // its kept frames come before the next one
    started = events_[channel].Start(recorder_, kind);
  } else {
    started = recorder_.Start(kind, channel);
  }
  if (started && !recorder_.WaitOpened(kOpenMs)) {
    started = false;
    if (!ran) {
      StopStarted(channel, kind);
    }
  }
  RefuseStart(started ? std::string() : WhyNotStarted());
  Wake();
  return started;
}

std::string SiteRecording::WhyNotStarted() const {
  const stRecordParam param = recorder_.GetRecParam();
  if (param.path[0] == L'\0') {
    return "no path: SetRecordParam comes first";
  }
  if (param.fileSizeMiB < 1 || param.secondLimit < 1) {
    return "fileSizeMiB and secondLimit are to be at least 1";
  }
  const int error = recorder_.GetRecordingStatus().lastError;
  return PathInData(param.path, DataRoot()) +
         "*: " + (error != 0 ? std::strerror(error) : "cannot be opened");
}

void SiteRecording::RefuseStart(std::string error) {
  ScopeLock hold(deviceLock_);
  startError_ = std::move(error);
}

std::string SiteRecording::StartError() const {
  ScopeLock hold(deviceLock_);
  return startError_;
}

// A schedule's recording would begin again by itself.
void SiteRecording::Stop(unsigned channel, RecordKind kind) {
  if (kind == RecordKind::kSchedule) {
    recorder_.TurnOffState(kind, channel);
  }
  StopStarted(channel, kind);
  Wake();
}

void SiteRecording::StopStarted(unsigned channel, RecordKind kind) {
  if (IsEvent(kind)) {
    ScopeLock hold(lock_);
    events_[channel].Forget(kind);
    FollowDue(channel);
  }
  recorder_.Stop(kind, channel);
}

// What is off when the lock is left begins with no frame any more.
void SiteRecording::StopAll() {
  {
    ScopeLock hold(lock_);
    recorder_.TurnOffAllRecordState();
    for (unsigned channel = 0; channel < kChannels; ++channel) {
      FollowStates(channel);
    }
  }
  recorder_.StopRecordAll();
  Wake();
}

void SiteRecording::TurnState(unsigned channel, RecordKind kind, bool on) {
  {
    ScopeLock hold(lock_);
    on ? recorder_.TurnOnState(kind, channel) : recorder_.TurnOffState(kind, channel);
    FollowStates(channel);
  }
  if (!on) {
    StopStarted(channel, kind);
  } else if (kind == RecordKind::kSchedule) {
    recorder_.Start(kind, channel);
  }
  Wake();
}

void SiteRecording::TurnOffAllStates() {
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    for (const RecordKind kind : kRecordKinds) {
      if (recorder_.IsStateOn(kind, channel)) {
        TurnState(channel, kind, false);
      }
    }
  }
}

void SiteRecording::FollowStates(unsigned channel) {
  events_[channel].FollowStates(recorder_);
  FollowDue(channel);
}

void SiteRecording::FollowDue(unsigned channel) {
  if (const bool due = events_[channel].IsDue(); due != due_.Has(channel)) {
    due ? due_.Set(channel) : due_.Clear(channel);
  }
}

unsigned SiteRecording::OnVideo(const FrameView& frame) {
  ScopeLock hold(lock_);
  const unsigned state = state_[frame.channel];
  if (frame.header.size() < kDrvHeaderSize) {
    return state;
  }
  const bool wasWanted = IsWanted();
  EventRecording& events = events_[frame.channel];
  const auto decision = events.Decide(recorder_, frame, state, Duration());
  events.NoteVideo(recorder_, frame, recorder_.RecordFrame(frame, decision.use));
  FollowDue(frame.channel);
  if (!wasWanted && IsWanted()) {
    Wake();
  }
  return decision.marks;
}

void SiteRecording::OnAudio(const FrameView& frame) {
  ScopeLock hold(lock_);
  const bool recorded = recorder_.RecordFrame(frame, FX::FX_DRVRecorder::FrameUse::kPlain);
  events_[frame.channel].NoteAudio(frame, recorded);
}

// --- The clock ----------------------------------------------------------------------------------

std::uint64_t SiteRecording::Turn(std::uint64_t now) {
  ScopeLock turn(turning_);
  StartSchedule();
  {
    ScopeLock hold(lock_);
    for (unsigned channel = 0; channel < kChannels; ++channel) {
      events_[channel].OnClock(recorder_, state_[channel], Duration());
      FollowDue(channel);
    }
  }
  recorder_.Flush();
  CollectFinished();
  LookForGaps();
  const bool done = !IsWanted() && recorder_.IsSettled() &&
                    recorder_.GetRecordingStatus().lateEvents == 0 && !gaps_.HasWaiting();
  // All sites at the same moment: one waking of the processor for all of them.
  return done ? Turns::kNever : (now / kTurnMs + 1) * kTurnMs;
}

// Also what could not be started when the state was turned on.
void SiteRecording::StartSchedule() {
  for (unsigned channel = 0; channel < kChannels && IsScheduled(); ++channel) {
    if (recorder_.IsScheNormalRecStateOn(channel) && !recorder_.IsScheNormalRecording(channel)) {
      recorder_.StartScheNormalRecord(channel);
      if (!recorder_.IsScheNormalRecStateOn(channel)) {  // turned off meanwhile
        recorder_.StopScheNormalRecord(channel);
      }
    }
  }
}

void SiteRecording::LookForGaps() {
  RecordingSight sight;
  sight.now = {TickMilliseconds(), WallSeconds()};
  sight.armed = IsArmed();
  sight.wanted = IsWanted();
  sight.alwaysWanted = IsAlwaysWanted();
  sight.recording = recorder_.GetRecordingStatus();
  sight.connection = connection_();
  recorder_.SetSoundAlone(sight.connection.soundAlone);
  {
    ScopeLock hold(deviceLock_);
    gaps_.SetSite(site_);
  }
  if (unseen_.exchange(false) && !sight.armed) {  // it began and ended between two looks
    RecordingSight begun = sight;
    begun.armed = begun.wanted = begun.alwaysWanted = true;
    gaps_.Look(begun);
  }
  gaps_.Look(sight);
  ScopeLock hold(gapLock_);
  gap_ = gaps_.Open();
  totalGaps_ = gaps_.Totals();
}

std::optional<OpenGap> SiteRecording::Gap() const {
  ScopeLock hold(gapLock_);
  return gap_;
}

GapTotals SiteRecording::TotalGaps() const {
  ScopeLock hold(gapLock_);
  return totalGaps_;
}

// --- Finished files -----------------------------------------------------------------------------

void SiteRecording::CollectFinished() {
  ScopeLock hold(filesLock_);
  for (FinishedRecording& file : recorder_.TakeFinished()) {
    if (mover_) {
      mover_->Add(file);
    }
    if (files_.size() == kMostFiles) {
      files_.pop_front();
    }
    files_.push_back(std::move(file.drvPath));
  }
}

std::vector<std::wstring> SiteRecording::TakeFiles() {
  CollectFinished();
  ScopeLock hold(filesLock_);
  std::vector<std::wstring> files(files_.begin(), files_.end());
  files_.clear();
  return files;
}

bool SiteRecording::WaitRecorded(int milliseconds) {
  using HostClock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kAgain{20};
  const auto end = HostClock::now() + std::chrono::milliseconds(milliseconds);
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - HostClock::now()).count();
    if (!recorder_.WaitRecorded(static_cast<int>(left > 0 ? left : 0))) {
      return false;
    }
    CollectFinished();
    if (recorder_.IsRecording() || recorder_.IsSettled()) {
      return true;
    }
    // What the disk is through with and is not settled has failed.
    if (IsLasting(recorder_.GetRecordingStatus().lastError) || HostClock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kAgain);
  }
}

bool SiteRecording::StartMoving(const wchar_t* target) {
  if (TextOf(target).empty()) {
    return false;
  }
  ScopeLock hold(filesLock_);
  if (mover_) {
    return false;
  }
  const std::string root = DataRoot();
  auto mover = std::make_unique<MovedRecordings>(
      LocatedInData(TextOf(target), root), LocatedInData(recorder_.GetRecParam().path, root), root);
  if (!mover->Start()) {
    return false;
  }
  mover_ = std::move(mover);
  Wake();
  return true;
}

void SiteRecording::StopMoving() {
  if (!IsMoving()) {
    return;
  }
  WaitRecorded(kLastFilesMs);  // the last file is to be moved too
  std::unique_ptr<MovedRecordings> mover;
  {
    ScopeLock hold(filesLock_);
    mover = std::move(mover_);
  }
  if (mover) {
    mover->Stop(kLastFilesMs);
  }
}

bool SiteRecording::IsMoving() const {
  ScopeLock hold(filesLock_);
  return mover_ != nullptr;
}

}  // namespace cms
