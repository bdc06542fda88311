#include "cms/recording/drv_writer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cms/recording/internal/late_record.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"

namespace CLFX {
namespace {

constexpr std::uint64_t kSilentMilliseconds = 10'000;  // no frame for so long: none is expected

// How the space of a full disk has to grow before files are begun again, so that recording does not
// resume for a few frames at a time.
constexpr std::uint64_t kSpaceToResume = 32u << 20;

bool IsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

}  // namespace

CLFXDRVWriter::CLFXDRVWriter() = default;

CLFXDRVWriter::~CLFXDRVWriter() {
  StopRecord();
  bool work = false;
  {
    ScopeLock hold(lock_);
    settleTick_ = 0;
    work = std::any_of(late_.begin(), late_.end(),
                       [](const auto& late) { return !late.IsClosed() || late.NeedsWork(); });
  }
  if (work) {  // what cannot be settled now is what a repair finds
    ControlWriteFile::GetInstance()->WaitWritten(2000);
    SettleLateRecords();
  }
}

bool CLFXDRVWriter::StartRecord(const wchar_t* path, int sizeMiB, int limit2, int /*value3*/,
                                const wchar_t* /*text5*/) {
  std::wstring target(cms::TextOf(path));
  ScopeLock hold(lock_);
  if (!data_) {
    data_.reset(new std::uint8_t[kBufferSize]);
    idxData_.reset(new std::uint8_t[kBufferSize]);
    ControlWriteFile::GetInstance();  // made here, not by the first frame that fills a buffer
  }
  CloseFiles(false);
  started_ = false;
  if (sizeMiB < 1 || limit2 < 1) {
    return false;
  }
  sizeMiB_ = sizeMiB;
  limit2_ = limit2;
  path_ = std::move(target);
  hasNewPath_ = false;
  forceChange_ = false;
  retryTick_ = 0;
  started_ = HasTarget() && MayOpen() && OpenFiles();
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
  forceChange_ = false;
  if (std::exchange(hasNewPath_, false)) {
    path_ = std::move(newPath_);
  }
  status_.error = 0;
}

bool CLFXDRVWriter::ChangeRecordFile() {
  ScopeLock hold(lock_);
  NoticeFailure();
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
  NoticeFailure();
  const bool begins = frameKind == cms::kBeginsFile;
  if (begins && (!HasOpenFile() || MustChange() || !Fits(length))) {
    if (!HasTarget() || (!HasOpenFile() && !MayOpen()) || !RollOver()) {
      return Drop();
    }
  }
  if (!HasOpenFile() || (!begins && !hasFrame_)) {
    return Drop();
  }
  if (!Fits(length)) {
    CloseFiles(false);
    return Drop();
  }
  record_.offset = static_cast<std::uint32_t>(handedOver_ + buffered_);
  AddData(blocks, length);
  hasFrame_ = true;
  lastFrameTick_ = cms::TickMilliseconds();
  status_.lastFrameTick = lastFrameTick_;
  ++status_.frames;
  status_.keyFrames += begins ? 1 : 0;
  status_.bytes += length;
  ++fileCounts_.frames;
  fileCounts_.keyFrames += begins ? 1 : 0;
  fileCounts_.bytes += length;
  return true;
}

bool CLFXDRVWriter::Drop() {
  ++(status_.error != 0 ? status_.failedFrames : status_.waitingFrames);
  return false;
}

bool CLFXDRVWriter::HasTarget() const {
  return data_ && sizeMiB_ > 0 && limit2_ > 0 && !path_.empty();
}

// An index record's offset has 32 bits.
bool CLFXDRVWriter::Fits(std::uint64_t length) const {
  return handedOver_ + buffered_ + length <= UINT32_MAX;
}

bool CLFXDRVWriter::MustChange() const {
  const std::uint64_t limit = static_cast<std::uint64_t>(std::max(sizeMiB_, 0)) << 20;
  return forceChange_ || hasNewPath_ || fileBegin_ + fileCounts_.bytes >= limit + sizeStagger_;
}

bool CLFXDRVWriter::IsSilent() const {
  return cms::TickMilliseconds() - lastFrameTick_ >= kSilentMilliseconds;
}

bool CLFXDRVWriter::MayOpen() {
  if (cms::TickMilliseconds() < retryTick_) {
    return false;
  }
  cms::FreeSpace space;
  const auto folder = cms::SplitAtLastSeparator(path_).folder;
  return !IsFull(status_.lastError) ||
         !cms::CurrentFileIo().Space(cms::NativePath(folder), space) ||
         space.free_to_caller >= kSpaceToResume;
}

void CLFXDRVWriter::Flush(std::uint32_t age) {
  {
    ScopeLock hold(lock_);
    NoticeFailure();
    NoticeVanishedFile();
    if (HasOpenFile() && forceChange_ && hasFrame_ && IsSilent()) {
      RollOver();
    }
    const std::uint64_t now = cms::TickMilliseconds();
    const bool dataIsOld = buffered_ > 0 && now - bufferedSince_ >= age;
    const bool idxIsOld = idxBuffered_ > 0 && now - idxBufferedSince_ >= age;
    if (dataIsOld || idxIsOld) {  // no index record stands on disk before its frame
      MemoryRecordToFile(false);
      MemoryIdxToFile(false);
    }
  }
  SettleLateRecords();
}

void CLFXDRVWriter::SetRecordTime(std::int64_t time) {
  ScopeLock hold(lock_);
  if (time > 0 && HasOpenFile()) {
    cms::WidenRecordTimes(time, startTime_, endTime_);
    recordList_->SetRecordTime(time);
  }
}

std::uint32_t CLFXDRVWriter::GetDrvOffset() const {
  ScopeLock hold(lock_);
  return HasOpenFile() ? static_cast<std::uint32_t>(handedOver_ + buffered_) : 0;
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

void CLFXDRVWriter::RememberFinished() {
  ScopeLock hold(lock_);
  rememberFinished_ = true;
}

std::vector<cms::FinishedRecording> CLFXDRVWriter::TakeFinished() {
  ScopeLock hold(lock_);
  return std::exchange(finished_, {});
}

bool CLFXDRVWriter::IsSettled() const {
  ScopeLock hold(lock_);
  return !HasOpenFile() && late_.empty();
}

cms::RecordingStatus CLFXDRVWriter::GetRecordingStatus() const {
  ScopeLock hold(lock_);
  cms::RecordingStatus status = status_;
  status.state = status_.error != 0           ? cms::RecordingState::kFailed
                 : HasOpenFile() && hasFrame_ ? cms::RecordingState::kRecording
                 : HasOpenFile() || started_  ? cms::RecordingState::kWaitingForKeyFrame
                                              : cms::RecordingState::kIdle;
  status.lateRecords = static_cast<std::uint64_t>(
      std::count_if(late_.begin(), late_.end(), [](const auto& late) { return late.NeedsWork(); }));
  return status;
}

std::wstring CLFXDRVWriter::GetDrvPath() const {
  ScopeLock hold(lock_);
  return HasOpenFile() ? drvPath_ : std::wstring();
}

}  // namespace CLFX
