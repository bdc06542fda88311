// CMSClientBase: the recording half.
#include "cms/live/client_base.h"
#include "cms/live/media/frame.h"
#include "cms/recording/site/internal/site_recording.h"
#include "cms/runtime/clock.h"

namespace {

// The recorder's frames are whole headers with their payloads; anything else stays its to refuse.
cms::FrameView ArrivedFrame(const void* header, int headerSize, const void* data, int size,
                            unsigned channel) {
  return cms::FrameOf(header, headerSize, data, size, channel, cms::TickMilliseconds() * 1000);
}

}  // namespace

void CMSClientBase::OnRecordVideoFrame(void* header, int headerSize, void* data, int size,
                                       unsigned channel) {
  const auto state = Channel(channel);
  if (state == nullptr || channel >= cms::kChannels) {
    return;
  }
  const auto frame = ArrivedFrame(header, headerSize, data, size, channel);
  unsigned marks = recording_->OnVideo(frame);
  for (int kind = 0; marks != 0; ++kind, marks >>= 1u) {
    if ((marks & 1u) != 0) {
      state->SetLastEventTime(kind, frame.seconds);
    }
  }
}

void CMSClientBase::OnRecordAudioFrame(void* header, int headerSize, void* data, int size,
                                       unsigned channel) {
  if (Channel(channel) != nullptr && channel < cms::kChannels) {
    recording_->OnAudio(ArrivedFrame(header, headerSize, data, size, channel));
  }
}

bool CMSClientBase::MayRecord(unsigned channel) const {
  return channel < recordableChannels_.load(std::memory_order_relaxed);
}

void CMSClientBase::DRVRecorderLockerLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  recording_->Lock().Lock();
}

void CMSClientBase::DRVRecorderLockerUnlock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  recording_->Lock().UnLock();
}

void CMSClientBase::SetRecordParam(const stRecordParam& param) {
  recording_->SetParam(param);
}

void CMSClientBase::SetRecordDevice(const wchar_t* address, const wchar_t* siteName,
                                    std::uint16_t port) {
  recording_->SetDevice(address, siteName, port);
}

void CMSClientBase::SetRecDuration(unsigned seconds) {
  recording_->SetDuration(seconds);
  for (const auto& channel : CopyOfChannels()) {
    channel->SetRecDuration(seconds);
  }
}

unsigned CMSClientBase::GetRecDuration() const {
  return recording_->Duration();
}

int CMSClientBase::SetRecEventPreAlarm(unsigned channel, unsigned seconds, int enabled,
                                       std::size_t bytes) {
  if (!MayRecord(channel)) {
    return 0;
  }
  try {
    recording_->SetPreAlarm(channel, seconds, enabled != 0, bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return 1;
}

void CMSClientBase::SetEventState(unsigned channel, unsigned state) {
  if (MayRecord(channel)) {
    recording_->SetEventState(channel, state);
  }
}

unsigned CMSClientBase::GetEventState(unsigned channel) const {
  return MayRecord(channel) ? recording_->EventState(channel) : 0;
}

int CMSClientBase::StartRecord(unsigned channel, int kind) {
  if (!MayRecord(channel)) {
    recording_->RefuseStart("channel " + std::to_string(channel) +
                            ": the site has no such channel");
    return 0;
  }
  const auto which = cms::RecordKindOf(kind);
  if (!which) {
    recording_->RefuseStart("kind " + std::to_string(kind) + " is no CMSRecordKind");
    return 0;
  }
  return recording_->Start(channel, *which) ? 1 : 0;
}

std::string CMSClientBase::GetStartRecordError() const {
  return recording_->StartError();
}

void CMSClientBase::StopRecord(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    recording_->Stop(channel, *which);
  }
}

void CMSClientBase::StopRecordAll() {
  recording_->StopAll();
}

int CMSClientBase::IsRecording(unsigned channel) const {
  return MayRecord(channel) && recording_->Recorder().IsRecording(channel, true) ? 1 : 0;
}

int CMSClientBase::IsRecording() const {
  return recording_->Recorder().IsRecording() ? 1 : 0;
}

int CMSClientBase::IsMotionRecording(unsigned channel) const {
  return MayRecord(channel) && recording_->Recorder().GetDeviceEventRecStatus(channel) ? 1 : 0;
}

void CMSClientBase::TurnOnRecordingState(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    recording_->TurnState(channel, *which, true);
  }
}

void CMSClientBase::TurnOffRecordingState(unsigned channel, int kind) {
  if (const auto which = cms::RecordKindOf(kind); which && MayRecord(channel)) {
    recording_->TurnState(channel, *which, false);
  }
}

void CMSClientBase::TurnOffRecordingStateAll() {
  recording_->TurnOffAllStates();
}

int CMSClientBase::StartMoveFileToNAS(const wchar_t* target) {
  return recording_->StartMoving(target) ? 1 : 0;
}

void CMSClientBase::StopMoveFileToNAS() {
  recording_->StopMoving();
}

int CMSClientBase::IsMovingFileToNAS() const {
  return recording_->IsMoving() ? 1 : 0;
}

int CMSClientBase::WaitRecorded(int milliseconds) {
  return recording_->WaitRecorded(milliseconds) ? 1 : 0;
}

std::vector<std::wstring> CMSClientBase::TakeRecordedFiles() {
  return recording_->TakeFiles();
}

cms::RecordingStatus CMSClientBase::GetRecordingStatus() const {
  return recording_->Recorder().GetRecordingStatus();
}

std::optional<cms::OpenGap> CMSClientBase::GetRecordingGap() const {
  return recording_->Gap();
}

int CMSClientBase::ChangeRecorderFile() {
  return recording_->Recorder().ChangeRecordFile() ? 1 : 0;
}

int CMSClientBase::ChangeRecorderPath(const wchar_t* path) {
  if (path == nullptr || *path == L'\0') {
    return 0;
  }
  recording_->Recorder().ChangeRecordPath(path);
  return 1;
}
