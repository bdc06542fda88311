// The files of a CLFXDRVWriter: how they are begun, changed, closed and given up.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"

namespace CLFX {
namespace {

constexpr std::uint64_t kFirstRetryMilliseconds = 1000;
constexpr std::uint64_t kLastRetryMilliseconds = 30'000;

using State = cms::RecordingFile::State;

}  // namespace

// What a recording needs in memory.
bool CLFXDRVWriter::Prepare() {
  if (!data_) {
    data_.reset(new std::uint8_t[kBufferSize]);
    idxData_.reset(new std::uint8_t[kBufferSize]);
  }
  if (!disk_) {
    disk_ = cms::RecordingDisk::Start();
    if (!disk_) {
      CountFailure(EAGAIN);
      return false;
    }
    if (rememberFinished_) {
      disk_->RememberFinished();
    }
  }
  return true;
}

bool CLFXDRVWriter::RollOver() {
  cms::RecordingSlots::Instance().SetStartTime(hasNewPath_ ? newPath_ : path_, cms::WallSeconds());
  return ChangeFile();
}

bool CLFXDRVWriter::ChangeFile() {
  ScopeLock hold(lock_);
  if (!disk_) {
    return false;
  }
  const std::wstring& target = hasNewPath_ ? newPath_ : path_;
  const std::int64_t startTime =
      cms::RecordingSlots::Instance().Use(target, cms::WallSeconds()).startTime;
  if (HasOpenFile() && target + cms::RecordingStamp(startTime) + L".drv" == GetDrvPath()) {
    return true;  // still its second: what asked for the change asks again
  }
  if (std::exchange(hasNewPath_, false)) {
    path_ = std::move(newPath_);
  }
  return HasTarget() && BeginFile();
}

// The disk ends the file before it once it has opened this one.
bool CLFXDRVWriter::BeginFile() {
  if (neverWait_ && !disk_->MayOpen()) {
    failing_ = failing_ || !file_;  // else the file before it goes on
    status_.error = file_ ? 0 : ETIMEDOUT;
    return false;
  }
  auto& slots = cms::RecordingSlots::Instance();
  const auto slot = slots.Use(path_, cms::WallSeconds());
  auto file = std::make_shared<cms::RecordingFile>();
  file->front = path_;
  file->startTime = slot.startTime;
  if (limit2_ != 1) {
    file->headers = streamHeaders_[streamHeaders_[0].empty() ? 1 : 0];
    file->headers.insert(file->headers.end(), streamHeaders_[2].begin(), streamHeaders_[2].end());
  }
  file->device = {address_, siteName_, port_};
  HandOverEnd();
  ForgetFile();
  disk_->Open(file, !neverWait_);
  file_ = std::move(file);
  ++fileNumber_;
  probing_ = failing_;
  forceChange_ = false;
  lastFrameTick_ = cms::TickMilliseconds();
  sizeStagger_ = slot.SizeStagger();
  flushThreshold_ = slot.FlushThreshold();
  ++status_.files;
  return true;
}

// The rest of the open file's buffers, and what its record will say.
void CLFXDRVWriter::HandOverEnd() {
  if (file_) {
    MemoryRecordToFile(true);
    MemoryIdxToFile(true);
    file_->accepted = fileCounts_;
  }
}

void CLFXDRVWriter::CloseFiles(bool failed) {
  if (file_) {
    HandOverEnd();
    disk_->Close(failed);
    ForgetFile();
  }
}

void CLFXDRVWriter::ForgetFile() {
  file_.reset();
  known_ = false;
  probing_ = false;
  begin_ = 0;
  handedOver_ = 0;
  fileCounts_ = {};
  hasFrame_ = false;
}

// What has become of the open file since it was last looked at.
void CLFXDRVWriter::Notice() {
  if (file_ && !known_) {
    NoticeOpened();
  }
  if (file_) {
    if (const int error = file_->error.load(std::memory_order_acquire); error != 0) {
      RecordFailed(error);
    }
  }
}

void CLFXDRVWriter::NoticeOpened() {
  const State state = file_->state.load(std::memory_order_acquire);
  if (state == State::kOpening) {
    return;
  }
  known_ = true;
  begin_ = file_->begin;
  if (state == State::kFailed) {
    --status_.files;
    RecordFailed(file_->openError);
    return;
  }
  const int lasting = stalled_ ? status_.error : 0;  // for which no file helps
  const int error = std::exchange(status_.error, lasting);
  if (state == State::kContinued) {  // until it is tried again
    --status_.files;
    CountFailure(file_->openError);
    status_.error = lasting;
    forceChange_ = true;
    return;
  }
  status_.resumptions += error != 0 && !stalled_ ? 1 : 0;
  failing_ = false;
  probing_ = false;
  if (file_->idxError != 0) {
    status_.lastError = file_->idxError;
    ++status_.failures;
  }
}

int CLFXDRVWriter::PendingError() const {
  if (!file_) {
    return 0;
  }
  const bool failed = file_->state.load(std::memory_order_acquire) == State::kFailed;
  return failed ? file_->openError : file_->error.load(std::memory_order_acquire);
}

void CLFXDRVWriter::RecordFailed(int error) {
  status_.lostBytes += std::exchange(buffered_, 0);
  idxBuffered_ = 0;
  CloseFiles(true);
  CountFailure(error);
  failing_ = true;
}

void CLFXDRVWriter::CountFailure(int error) {
  const std::uint64_t now = cms::TickMilliseconds();
  ++status_.failures;
  status_.error = error;
  status_.lastError = error;
  const bool again = retryDelay_ > 0 && now - failureTick_ <= 2 * kLastRetryMilliseconds;
  retryDelay_ = again ? std::min(2 * retryDelay_, kLastRetryMilliseconds) : kFirstRetryMilliseconds;
  failureTick_ = now;
  retryTick_ = now + retryDelay_;
}

}  // namespace CLFX
