// CMSClientBase: the recording half.
#include "cms/live/internal/client_state.h"
#include "cms/live/media/frame.h"
#include "cms/recording/channel_set.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace {

// The recorder's frames are whole headers with their payloads; anything else stays its to refuse.
cms::FrameView ArrivedFrame(const void* header, int headerSize, const void* data, int size,
                            unsigned channel, const cms::FrameMoment& moment) {
  const std::uint64_t arrival = moment.arrivalUs != 0 ? moment.arrivalUs : cms::TickMicroseconds();
  cms::FrameView frame = cms::FrameOf(header, headerSize, data, size, channel, arrival);
  frame.cameraUs = moment.cameraUs;
  return frame;
}

}  // namespace

void CMSClientBase::OnRecordVideoFrame(void* header, int headerSize, void* data, int size,
                                       unsigned channel) {
  const auto state = Channel(channel);
  if (state == nullptr || channel >= cms::kChannels) {
    return;
  }
  const auto frame = ArrivedFrame(header, headerSize, data, size, channel, state_->moment);
  unsigned marks = state_->recording.OnVideo(frame);
  for (int kind = 0; marks != 0; ++kind, marks >>= 1u) {
    if ((marks & 1u) != 0) {
      state->SetLastEventTime(kind, frame.seconds);
    }
  }
}

void CMSClientBase::OnRecordAudioFrame(void* header, int headerSize, void* data, int size,
                                       unsigned channel) {
  if (Channel(channel) != nullptr && channel < cms::kChannels) {
    state_->recording.OnAudio(
        ArrivedFrame(header, headerSize, data, size, channel, state_->moment));
  }
}

bool CMSClientBase::MayRecord(unsigned channel) const {
  return channel < state_->recordableChannels.load(std::memory_order_relaxed);
}

void CMSClientBase::DRVRecorderLockerLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->recording.Lock().Lock();
}

void CMSClientBase::DRVRecorderLockerUnlock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->recording.Lock().UnLock();
}

void CMSClientBase::SetDataRoot(const std::string& folder) {
  state_->recording.SetDataRoot(folder);
}

void CMSClientBase::SetRecordParam(const stRecordParam& param) {
  state_->recording.SetParam(param);
}

void CMSClientBase::SetRecordDevice(const wchar_t* address, const wchar_t* siteName,
                                    std::uint16_t port) {
  state_->recording.SetDevice(address, siteName, port);
}

void CMSClientBase::SetRecordDevice(const std::string& address, const std::string& siteName,
                                    std::uint16_t port) {
  SetRecordDevice(cms::WideFromUtf8(address).c_str(), cms::WideFromUtf8(siteName).c_str(), port);
}

int CMSClientBase::ChangeRecordPath(const std::string& path) {
  return ChangeRecordPath(cms::SystemPath(path).c_str());
}

void CMSClientBase::SetRecDuration(unsigned seconds) {
  state_->recording.SetDuration(seconds);
  for (const auto& channel : state_->CopyOfChannels()) {
    channel->SetRecDuration(seconds);
  }
}

unsigned CMSClientBase::GetRecDuration() const {
  return state_->recording.Duration();
}

int CMSClientBase::SetRecEventPreAlarm(unsigned channel, unsigned seconds, int enabled,
                                       std::size_t bytes) {
  if (!MayRecord(channel)) {
    return 0;
  }
  try {
    state_->recording.SetPreAlarm(channel, seconds, enabled != 0, bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return 1;
}

void CMSClientBase::SetEventState(unsigned channel, unsigned state) {
  if (MayRecord(channel)) {
    state_->recording.SetEventState(channel, state);
  }
}

unsigned CMSClientBase::GetEventState(unsigned channel) const {
  return MayRecord(channel) ? state_->recording.EventState(channel) : 0;
}

int CMSClientBase::StartRecord(unsigned channel, int kind) {
  if (!MayRecord(channel)) {
    state_->recording.RefuseStart("channel " + std::to_string(channel) +
                                  ": the site has no such channel");
    return 0;
  }
  const auto which = cms::RecordKindOf(kind);
  if (!which) {
    state_->recording.RefuseStart("kind " + std::to_string(kind) + " is no CMSRecordKind");
    return 0;
  }
  return state_->recording.Start(channel, *which) ? 1 : 0;
}

std::string CMSClientBase::GetStartRecordError() const {
  return state_->recording.StartError();
}

void CMSClientBase::StopRecord(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    state_->recording.Stop(channel, *which);
  }
}

void CMSClientBase::StopRecordAll() {
  state_->recording.StopAll();
}

int CMSClientBase::IsRecording(unsigned channel) const {
  return MayRecord(channel) && state_->recording.Recorder().IsRecording(channel, true) ? 1 : 0;
}

int CMSClientBase::IsRecording() const {
  return state_->recording.Recorder().IsRecording() ? 1 : 0;
}

int CMSClientBase::IsMotionRecording(unsigned channel) const {
  return MayRecord(channel) && state_->recording.Recorder().GetDeviceEventRecStatus(channel) ? 1
                                                                                             : 0;
}

void CMSClientBase::TurnOnRecordingState(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    state_->recording.TurnState(channel, *which, true);
  }
}

void CMSClientBase::TurnOffRecordingState(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    state_->recording.TurnState(channel, *which, false);
  }
}

void CMSClientBase::TurnOffRecordingStateAll() {
  state_->recording.TurnOffAllStates();
}

int CMSClientBase::StartMoveFileToNAS(const wchar_t* target) {
  return state_->recording.StartMoving(target) ? 1 : 0;
}

int CMSClientBase::StartMoveFileToNAS(const std::string& target) {
  return StartMoveFileToNAS(cms::SystemPath(target).c_str());
}

void CMSClientBase::StopMoveFileToNAS() {
  state_->recording.StopMoving();
}

int CMSClientBase::IsMovingFileToNAS() const {
  return state_->recording.IsMoving() ? 1 : 0;
}

int CMSClientBase::WaitRecorded(int milliseconds) {
  return state_->recording.WaitRecorded(milliseconds) ? 1 : 0;
}

std::vector<std::wstring> CMSClientBase::TakeRecordedFiles() {
  return state_->recording.TakeFiles();
}

std::vector<std::string> CMSClientBase::TakeRecordedPaths() {
  std::vector<std::string> paths;
  for (const std::wstring& file : TakeRecordedFiles()) {
    paths.push_back(cms::NativePath(file));
  }
  return paths;
}

cms::RecordingStatus CMSClientBase::GetRecordingStatus() const {
  return state_->recording.Recorder().GetRecordingStatus();
}

std::optional<cms::OpenGap> CMSClientBase::GetRecordingGap() const {
  return state_->recording.Gap();
}

cms::GapTotals CMSClientBase::GetRecordingGapTotals() const {
  return state_->recording.TotalGaps();
}

int CMSClientBase::ChangeRecorderFile() {
  return state_->recording.Recorder().ChangeRecordFile() ? 1 : 0;
}

int CMSClientBase::ChangeRecorderPath(const wchar_t* path) {
  if (path == nullptr || *path == L'\0') {
    return 0;
  }
  state_->recording.Recorder().ChangeRecordPath(path);
  return 1;
}
