#include "cms/recording/drv_writer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cms/recording/internal/exit_stops.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"

namespace CLFX {
namespace {

constexpr std::uint64_t kSilentMilliseconds = 10'000;   // no frame for so long: none is expected
constexpr std::uint64_t kKeylessMilliseconds = 10'000;  // no key frame for so long: likewise
constexpr int kOpenMilliseconds = 3000;
constexpr unsigned kBackedUp = 4;  // jobs that wait: handing over small buffers would not help
constexpr unsigned kRoomToResume = cms::DiskBuffers::kOwn - cms::RecordingDisk::kReserved;

}  // namespace

CLFXDRVWriter::CLFXDRVWriter() {
  AtExit([this] { StopRecord(); });
}

CLFXDRVWriter::~CLFXDRVWriter() {
  NoExitStop();
  std::shared_ptr<cms::RecordingDisk> disk;
  {
    ScopeLock hold(lock_);
    neverWait_ = true;  // what is reserved is enough for the end of the file
    StopRecord();
    disk = disk_;
  }
  if (disk) {
    disk->End();
  }
}

void CLFXDRVWriter::AtExit(std::function<void()> stop) {
  cms::ExitStops::Instance().Add(this, [this, stop = std::move(stop)] {
    {
      ScopeLock hold(lock_);
      neverWait_ = true;
    }
    stop();
  });
}

void CLFXDRVWriter::NoExitStop() {
  cms::ExitStops::Instance().Remove(this);
}

bool CLFXDRVWriter::StartRecord(const wchar_t* path, int sizeMiB, int limit2, int /*value3*/,
                                const wchar_t* /*text5*/) {
  std::wstring target(cms::TextOf(path));
  ScopeLock hold(lock_);
  CloseFiles(false);
  started_ = false;
  if (sizeMiB < 1 || limit2 < 1 || !Prepare()) {
    return false;
  }
  sizeMiB_ = sizeMiB;
  limit2_ = limit2;
  path_ = std::move(target);
  hasNewPath_ = false;
  forceChange_ = false;
  stalled_ = false;
  lastKeyTick_ = cms::TickMilliseconds();
  if (!HasTarget()) {
    return false;
  }
  if (neverWait_) {
    started_ = true;
    if (failing_) {
      status_.error = status_.lastError;
    }
    if (!failing_ || MayOpen()) {  // else Flush and key frames try again
      BeginFile();
    }
    return true;
  }
  if (!BeginFile()) {
    return false;
  }
  const auto file = file_;
  const auto disk = disk_;
  hold.UnLock();
  disk->WaitOpened(*file, kOpenMilliseconds);
  hold.Lock();
  Notice();
  started_ = file_ == file;
  return started_;
}

bool CLFXDRVWriter::StartRecordAgain() {
  std::wstring path;
  int sizeMiB = 0;
  int limit2 = 0;
  {
    ScopeLock hold(lock_);
    path = path_;
    sizeMiB = sizeMiB_;
    limit2 = limit2_;
  }
  return StartRecord(path.c_str(), sizeMiB, limit2, 0, nullptr);
}

bool CLFXDRVWriter::GoesOn() const {
  ScopeLock hold(lock_);
  return HasOpenFile() || (started_ && neverWait_);
}

void CLFXDRVWriter::SetTarget(const wchar_t* path, int sizeMiB, int limit2) {
  ScopeLock hold(lock_);
  sizeMiB_ = sizeMiB;
  limit2_ = limit2;
  ChangeRecordPath(path);
}

void CLFXDRVWriter::StopRecord() {
  ScopeLock hold(lock_);
  CloseFiles(false);
  started_ = false;
  stalled_ = false;
  forceChange_ = false;
  if (std::exchange(hasNewPath_, false)) {
    path_ = std::move(newPath_);
  }
  status_.error = 0;
}

bool CLFXDRVWriter::ChangeRecordFile() {
  ScopeLock hold(lock_);
  Notice();
  if (!HasOpenFile()) {
    return false;  // the next key frame begins a file anyway, if one is wanted
  }
  if (hasFrame_ && !IsSilent()) {
    forceChange_ = true;
    return true;
  }
  return (!hasFrame_ && !hasNewPath_) || RollOver();
}

void CLFXDRVWriter::SetForceChangeFile() {
  ScopeLock hold(lock_);
  forceChange_ = true;
}

void CLFXDRVWriter::ChangeRecordPath(const wchar_t* path) {
  ScopeLock hold(lock_);
  std::wstring target(cms::TextOf(path));
  hasNewPath_ = HasOpenFile() && target != path_;
  (hasNewPath_ ? newPath_ : path_) = std::move(target);
}

bool CLFXDRVWriter::IsRecording() {
  ScopeLock hold(lock_);
  return HasOpenFile();
}

bool CLFXDRVWriter::Record(const void* data, std::uint32_t length, int frameKind) {
  const std::span<const std::uint8_t> block(static_cast<const std::uint8_t*>(data), length);
  ScopeLock hold(lock_);
  return RecordBlocks({&block, 1}, frameKind);
}

bool CLFXDRVWriter::RecordBlocks(std::span<const std::span<const std::uint8_t>> blocks,
                                 int frameKind) {
  std::uint64_t length = 0;
  for (const auto& block : blocks) {
    length += block.size();
  }
  if (length == 0) {
    return false;
  }
  Notice();
  const bool begins = Begins(frameKind);
  const bool wanted = file_ == nullptr || (!probing_ && (MustChange() || !Fits(length)));
  if (begins && wanted && HasTarget() && MayOpen()) {
    RollOver();
  }
  if (!HasOpenFile() || (!begins && !hasFrame_) || !HasRoom(length, begins)) {
    return Drop();
  }
  if (!Fits(length)) {
    CloseFiles(false);
    return Drop();
  }
  record_.offset = static_cast<std::uint32_t>(begin_ + handedOver_ + buffered_);
  AddData(blocks, length);
  hasFrame_ = true;
  lastFrameTick_ = cms::TickMilliseconds();
  status_.lastFrameTick = lastFrameTick_;
  const std::uint64_t keys = frameKind == cms::kBeginsFile ? 1 : 0;
  ++status_.frames;
  status_.keyFrames += keys;
  status_.bytes += length;
  ++fileCounts_.frames;
  fileCounts_.keyFrames += keys;
  fileCounts_.bytes += length;
  return true;
}

// A key frame, or what comes when none does: a stream may refresh its pictures bit by bit, or be
// sound alone.
bool CLFXDRVWriter::Begins(int frameKind) {
  const std::uint64_t now = cms::TickMilliseconds();
  if (frameKind == cms::kBeginsFile) {
    lastKeyTick_ = now;
    return true;
  }
  return (fileCounts_.keyFrames == 0 || stalled_) && now - lastKeyTick_ >= kKeylessMilliseconds;
}

// Whoever may not wait for a slow disk drops whole groups of pictures.
bool CLFXDRVWriter::HasRoom(std::uint64_t length, bool begins) {
  if (!neverWait_ || (!stalled_ && buffered_ + length <= flushThreshold_)) {
    return true;
  }
  if (stalled_ && (!begins || !disk_->HasRoom(kRoomToResume))) {
    return false;
  }
  const bool room = disk_->HasRoom(static_cast<unsigned>((buffered_ + length) / kBufferSize) + 2);
  if (!room && !stalled_) {
    ++status_.failures;
    status_.lastError = ETIMEDOUT;
  } else if (room && stalled_) {
    ++status_.resumptions;
  }
  stalled_ = !room;
  status_.error = room ? 0 : ETIMEDOUT;
  return room;
}

bool CLFXDRVWriter::Drop() {
  ++(status_.error != 0 ? status_.failedFrames : status_.waitingFrames);
  return false;
}

bool CLFXDRVWriter::HasTarget() const {
  return disk_ && sizeMiB_ > 0 && limit2_ > 0 && !path_.empty();
}

// An index record's offset has 32 bits.
bool CLFXDRVWriter::Fits(std::uint64_t length) const {
  return begin_ + handedOver_ + buffered_ + length <= UINT32_MAX;
}

bool CLFXDRVWriter::MustChange() const {
  const std::uint64_t limit = static_cast<std::uint64_t>(std::max(sizeMiB_, 0)) << 20;
  return forceChange_ || hasNewPath_ || begin_ + fileCounts_.bytes >= limit + sizeStagger_;
}

bool CLFXDRVWriter::IsSilent() const {
  return cms::TickMilliseconds() - lastFrameTick_ >= kSilentMilliseconds;
}

bool CLFXDRVWriter::MayOpen() const {
  return cms::TickMilliseconds() >= retryTick_;
}

void CLFXDRVWriter::Flush(std::uint32_t age) {
  ScopeLock hold(lock_);
  if (!disk_) {
    return;
  }
  Notice();
  if (HasOpenFile() && forceChange_ && hasFrame_ && IsSilent() && MayOpen()) {
    RollOver();
  }
  if (started_ && !file_ && failing_ && MayOpen()) {
    RollOver();
  }
  const std::uint64_t now = cms::TickMilliseconds();
  const bool dataIsOld = buffered_ > 0 && now - bufferedSince_ >= age;
  const bool idxIsOld = idxBuffered_ > 0 && now - idxBufferedSince_ >= age;
  const bool helps = age == 0 || disk_->Waiting() < kBackedUp;
  if ((dataIsOld || idxIsOld) && helps && disk_->HasRoom(2)) {
    MemoryRecordToFile(false);  // no index record stands on disk before its frame
    MemoryIdxToFile(false);
  }
  disk_->Look();
}

void CLFXDRVWriter::SetRecordTime(std::int64_t time) {
  ScopeLock hold(lock_);
  if (time > 0 && file_) {
    cms::WidenRecordTimes(time, file_->start, file_->end);
  }
}

std::uint32_t CLFXDRVWriter::GetDrvOffset() const {
  ScopeLock hold(lock_);
  return HasOpenFile() ? static_cast<std::uint32_t>(begin_ + handedOver_ + buffered_) : 0;
}

void CLFXDRVWriter::SetDrvIdx(const DrvIdx& record) {
  ScopeLock hold(lock_);
  record_ = record;
}

void CLFXDRVWriter::SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port) {
  ScopeLock hold(lock_);
  address_ = cms::TextOf(address);
  siteName_ = cms::TextOf(siteName);
  port_ = port;
}

void CLFXDRVWriter::SetStreamHeaders(std::span<const std::uint8_t> twelveBytes,
                                     std::span<const std::uint8_t> hundredThirtySixBytes,
                                     std::span<const std::uint8_t> codecConfiguration) {
  ScopeLock hold(lock_);
  streamHeaders_[0].assign(twelveBytes.begin(), twelveBytes.end());
  streamHeaders_[1].assign(hundredThirtySixBytes.begin(), hundredThirtySixBytes.end());
  streamHeaders_[2].assign(codecConfiguration.begin(), codecConfiguration.end());
}

void CLFXDRVWriter::NeverWaitForDisk() {
  ScopeLock hold(lock_);
  neverWait_ = true;
}

bool CLFXDRVWriter::WaitOpened(int milliseconds) {
  ScopeLock hold(lock_);
  Notice();
  if (started_ && !file_ && HasTarget()) {
    RollOver();
  }
  const auto file = file_;
  const auto disk = disk_;
  if (!file) {
    return false;
  }
  hold.UnLock();
  disk->WaitOpened(*file, milliseconds);
  hold.Lock();
  Notice();
  return file_ != nullptr;
}

bool CLFXDRVWriter::WaitRecorded(int milliseconds) {
  std::shared_ptr<cms::RecordingDisk> disk;
  {
    ScopeLock hold(lock_);
    disk = disk_;
  }
  // Twice: there may have been no room for all of it.
  for (int round = 0; disk && round < 2; ++round) {
    Flush(0);
    if (!disk->WaitIdle(milliseconds)) {
      return false;
    }
  }
  ScopeLock hold(lock_);
  Notice();
  return true;
}

void CLFXDRVWriter::RememberFinished() {
  ScopeLock hold(lock_);
  rememberFinished_ = true;
  if (disk_) {
    disk_->RememberFinished();
  }
}

std::vector<cms::FinishedRecording> CLFXDRVWriter::TakeFinished() {
  ScopeLock hold(lock_);
  return disk_ ? disk_->TakeFinished() : std::vector<cms::FinishedRecording>();
}

bool CLFXDRVWriter::IsSettled() const {
  ScopeLock hold(lock_);
  return !file_ && (!disk_ || disk_->IsSettled());
}

void CLFXDRVWriter::DoOnDisk(std::function<cms::DiskTaskResult()> task) {
  ScopeLock hold(lock_);
  if (disk_) {
    disk_->Store(std::move(task));
  }
}

cms::RecordingStatus CLFXDRVWriter::GetRecordingStatus() const {
  ScopeLock hold(lock_);
  cms::RecordingStatus status = status_;
  if (const int error = PendingError(); error != 0) {
    status.error = error;
    status.lastError = error;
  }
  status.state = status.error != 0            ? cms::RecordingState::kFailed
                 : HasOpenFile() && hasFrame_ ? cms::RecordingState::kRecording
                 : HasOpenFile() || started_  ? cms::RecordingState::kWaitingForKeyFrame
                                              : cms::RecordingState::kIdle;
  if (disk_) {
    const cms::RecordingFiles::Counts counts = disk_->GetCounts();
    status.lostBytes += counts.lostBytes;
    status.lost = counts.lost;
    status.failures += counts.failures;
    status.lastError = status.lastError != 0 ? status.lastError : counts.lastError;
    status.lateRecords = counts.lateRecords;
    status.lateEvents = disk_->Tasks();
  }
  return status;
}

std::wstring CLFXDRVWriter::GetDrvPath() const {
  ScopeLock hold(lock_);
  if (!HasOpenFile()) {
    return {};
  }
  const bool opening =
      file_->state.load(std::memory_order_acquire) == cms::RecordingFile::State::kOpening;
  return opening ? file_->front + cms::RecordingStamp(file_->startTime) + L".drv" : file_->drvPath;
}

std::wstring CLFXDRVWriter::FrontOfPath() const {
  ScopeLock hold(lock_);
  return file_ ? file_->front : path_;
}

}  // namespace CLFX
