#include "cms/live/internal/site_recording.h"

#include <utility>

#include "cms/recording/control_write_file.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr int kAllKinds[] = {kRecordDeviceEvent, kRecordAlarm, kRecordVideoLoss, kRecordInstant,
                             kRecordSchedule};

}  // namespace

SiteRecording::SiteRecording(ConnectionSource connection) : connection_(std::move(connection)) {
  recorder_.RememberFinished();
  events_.reserve(kChannels);
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    events_.emplace_back(channel);
  }
}

SiteRecording::~SiteRecording() {
  StopAll();
  SiteSupervisor::Recordings().Remove(this);
  ScopeLock hold(turning_);
  LookForGaps();
  CollectFinished();
  StopMoving();
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
  events_[channel].SetPreAlarm(seconds, enabled, bytes);
}

bool SiteRecording::IsWanted() const {
  return recorder_.IsDeviceEventRecording() || recorder_.IsDeviceAlarmRecording() ||
         recorder_.IsDeviceVideoLossRecording() || recorder_.IsInstNormalRecording() ||
         recorder_.IsScheNormalRecording() || IsScheduled();
}

bool SiteRecording::IsArmed() const {
  return IsWanted() || recorder_.IsDeviceEventRecStateOn() || recorder_.IsDeviceAlarmRecStateOn() ||
         recorder_.IsDeviceVideoLossRecStateOn();
}

void SiteRecording::Wake() {
  SiteSupervisor::Recordings().Add(this, TickMilliseconds());
}

bool SiteRecording::Start(unsigned channel, int kind) {
  const bool started = StartKind(recorder_, channel, kind);
  Wake();
  return started;
}

// A schedule's recording would begin again by itself.
void SiteRecording::Stop(unsigned channel, int kind) {
  if (kind == kRecordSchedule) {
    TurnKind(recorder_, channel, kind, false);
  }
  StopKind(recorder_, channel, kind);
  Wake();
}

void SiteRecording::StopAll() {
  ScopeLock hold(lock_);  // no frame begins an event in between
  recorder_.TurnOffAllRecordState();
  recorder_.StopRecordAll();
  Wake();
}

void SiteRecording::TurnState(unsigned channel, int kind, bool on) {
  TurnKind(recorder_, channel, kind, on);
  if (!on) {
    StopKind(recorder_, channel, kind);
  } else if (kind == kRecordSchedule) {
    StartKind(recorder_, channel, kind);
  }
  Wake();
}

void SiteRecording::TurnOffAllStates() {
  for (unsigned channel = 0; channel < kChannels; ++channel) {
    for (const int kind : kAllKinds) {
      if (IsKindOn(recorder_, channel, kind)) {
        TurnState(channel, kind, false);
      }
    }
  }
}

unsigned SiteRecording::OnVideo(const PreAlarmBuffer::Frame& frame, unsigned channel) {
  ScopeLock hold(lock_);
  const bool wasWanted = IsWanted();
  const unsigned marks = events_[channel].OnVideo(recorder_, frame, state_[channel], Duration());
  if (!wasWanted && IsWanted()) {
    Wake();
  }
  return marks;
}

void SiteRecording::OnAudio(const PreAlarmBuffer::Frame& frame, unsigned channel) {
  ScopeLock hold(lock_);
  events_[channel].OnAudio(recorder_, frame);
}

// --- The clock ----------------------------------------------------------------------------------

std::uint64_t SiteRecording::Turn(std::uint64_t now) {
  ScopeLock turn(turning_);
  StartSchedule();
  {
    ScopeLock hold(lock_);
    for (unsigned channel = 0; channel < kChannels; ++channel) {
      events_[channel].OnClock(recorder_, state_[channel], Duration());
    }
  }
  recorder_.Flush();
  CollectFinished();
  LookForGaps();
  const bool done = !IsWanted() && recorder_.IsSettled() &&
                    recorder_.GetRecordingStatus().lateEvents == 0 && !gaps_.HasWaiting();
  // All sites at the same moment: one waking of the processor for all of them.
  return done ? SiteSupervisor::kNever : (now / kTurnMs + 1) * kTurnMs;
}

// Also what could not be started when the state was turned on.
void SiteRecording::StartSchedule() {
  for (unsigned channel = 0; channel < kChannels && IsScheduled(); ++channel) {
    if (recorder_.IsScheNormalRecStateOn(channel) && !recorder_.IsScheNormalRecording(channel)) {
      recorder_.StartScheNormalRecord(channel);
    }
  }
}

void SiteRecording::LookForGaps() {
  RecordingSight sight;
  sight.wall = WallSeconds();
  sight.tick = TickMilliseconds();
  sight.armed = IsArmed();
  sight.wanted = IsWanted();
  sight.recording = recorder_.GetRecordingStatus();
  const ConnectionStatus connection = connection_();
  sight.connection = connection.state;
  sight.fault = connection.fault;
  {
    ScopeLock hold(deviceLock_);
    gaps_.SetSite(site_);
  }
  gaps_.Look(sight);
  ScopeLock hold(gapLock_);
  gap_ = gaps_.Open();
}

std::optional<OpenGap> SiteRecording::Gap() const {
  ScopeLock hold(gapLock_);
  return gap_;
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
  const std::uint64_t end =
      TickMilliseconds() + static_cast<std::uint64_t>(milliseconds > 0 ? milliseconds : 0);
  recorder_.Flush(0);
  do {
    const std::uint64_t now = TickMilliseconds();
    if (!ControlWriteFile::GetInstance()->WaitWritten(
            static_cast<int>(end > now ? end - now : 0))) {
      return false;
    }
    recorder_.Flush(0);
    CollectFinished();
    if (recorder_.IsRecording() || recorder_.IsSettled()) {
      return true;
    }
  } while (TickMilliseconds() < end);
  return false;
}

bool SiteRecording::StartMoving(const wchar_t* target) {
  if (TextOf(target).empty()) {
    return false;
  }
  ScopeLock hold(filesLock_);
  if (mover_) {
    return false;
  }
  auto mover = std::make_unique<MovedRecordings>(std::wstring(TextOf(target)));
  if (!mover->Start()) {
    return false;
  }
  mover_ = std::move(mover);
  Wake();
  return true;
}

void SiteRecording::StopMoving() {
  std::unique_ptr<MovedRecordings> mover;
  {
    ScopeLock hold(filesLock_);
    mover = std::move(mover_);
  }
  if (mover) {
    mover->Stop();
  }
}

bool SiteRecording::IsMoving() const {
  ScopeLock hold(filesLock_);
  return mover_ != nullptr;
}

}  // namespace cms
