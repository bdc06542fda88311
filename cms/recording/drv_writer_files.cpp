// The files of a CLFXDRVWriter: how they are opened, changed, closed and given up.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/late_record.h"
#include "cms/recording/internal/recording_pair.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace CLFX {
namespace {

constexpr int kNamesToTry = 16;
constexpr int kCloseMilliseconds = 2000;  // what the queue may take to close a file
constexpr std::uint64_t kFirstRetryMilliseconds = 1000;
constexpr std::uint64_t kLastRetryMilliseconds = 30'000;
constexpr std::uint64_t kSettleMilliseconds = 5000;
constexpr std::uint64_t kLargestFile = UINT32_MAX;

// The name is somebody else's; another one may do.
bool IsTaken(int error) {
  return error == EWOULDBLOCK || error == EACCES || error == EPERM || error == EISDIR ||
         error == ETXTBSY;
}

}  // namespace

bool CLFXDRVWriter::RollOver() {
  cms::RecordingSlots::Instance().SetStartTime(hasNewPath_ ? newPath_ : path_, cms::WallSeconds());
  return ChangeFile();
}

bool CLFXDRVWriter::ChangeFile() {
  ScopeLock hold(lock_);
  const std::wstring& target = hasNewPath_ ? newPath_ : path_;
  const std::int64_t startTime =
      cms::RecordingSlots::Instance().Use(target, cms::WallSeconds()).startTime;
  if (HasOpenFile() && target + cms::RecordingStamp(startTime) + L".drv" == drvPath_) {
    return true;  // still its second: what asked for the change asks again
  }
  CloseFiles(false);
  if (std::exchange(hasNewPath_, false)) {
    path_ = std::move(newPath_);
  }
  forceChange_ = false;
  return HasTarget() && OpenFiles();
}

bool CLFXDRVWriter::OpenFiles() {
  auto& slots = cms::RecordingSlots::Instance();
  const auto slot = slots.Use(path_, cms::WallSeconds());
  sizeStagger_ = slot.SizeStagger();
  flushThreshold_ = slot.FlushThreshold();
  int error = EWOULDBLOCK;
  for (int i = 0; i < kNamesToTry && IsTaken(error); ++i) {
    error = OpenNamed(slot.startTime + i);
    if (error == 0 && i > 0) {
      slots.SetStartTime(path_, slot.startTime + i);
    }
  }
  if (error != 0) {
    CountFailure(error);
    return false;
  }
  status_.resumptions += std::exchange(status_.error, 0) != 0 ? 1 : 0;
  ++status_.files;
  return true;
}

int CLFXDRVWriter::OpenNamed(std::int64_t startTime) {
  const std::wstring stem = path_ + cms::RecordingStamp(startTime);
  std::wstring drvPath = stem + L".drv";
  std::wstring idxPath = stem + L".idx";
  if (cms::Utf16Length(drvPath) > cms::kLongestRecordedPath) {
    return ENAMETOOLONG;
  }
  if (drvPath == drvPath_ && drvStatus_ && !drvStatus_->closed) {
    ControlWriteFile::GetInstance()->WaitWritten(kCloseMilliseconds);
  }
  if (IsDamaged(drvPath) || drvPath == lastFinished_) {
    return EWOULDBLOCK;
  }
  cms::FileIo& io = cms::CurrentFileIo();
  cms::RecordingPair pair;
  if (const int error = cms::OpenRecordingPair(io, drvPath, idxPath, pair); error != 0) {
    return error;
  }
  if (pair.drvSize >= kLargestFile) {
    io.Close(pair.drv);
    if (pair.idx >= 0) {
      io.Close(pair.idx);
    }
    return EWOULDBLOCK;
  }
  drv_ = pair.drv;
  idx_ = pair.idx;
  drvFile_ = pair.drvFile;
  drvStatus_ = std::make_shared<cms::WriteStatus>();
  idxStatus_ = idx_ >= 0 ? std::make_shared<cms::WriteStatus>() : nullptr;
  idxIncomplete_ = idx_ < 0;
  if (idxIncomplete_) {
    status_.lastError = pair.idxError;
    ++status_.failures;
  }
  drvPath_ = std::move(drvPath);
  idxPath_ = std::move(idxPath);
  handedOver_ = pair.drvSize;
  fileBegin_ = pair.drvSize;
  fileCounts_ = {};
  hasFrame_ = false;
  lastFrameTick_ = cms::TickMilliseconds();
  startTime_ = 0;
  endTime_ = 0;
  const auto split = cms::SplitAtLastSeparator(drvPath_);
  recordList_ = std::make_unique<FX::FX_RecordDBListWriter>();
  recordList_->SetDBListPath(std::wstring(split.folder).c_str());
  recordList_->InitialRecordDBInfo(std::wstring(split.name).c_str(), address_.c_str(),
                                   siteName_.c_str(), port_);
  if (pair.drvSize == 0 && limit2_ != 1) {
    AppendStreamHeaders();
  }
  return 0;
}

void CLFXDRVWriter::AppendStreamHeaders() {
  const auto append = [this](const std::vector<std::uint8_t>& header) CMS_REQUIRES(lock_) {
    const std::span<const std::uint8_t> block(header);
    AddData({&block, 1}, block.size());
  };
  append(streamHeaders_[0].empty() ? streamHeaders_[1] : streamHeaders_[0]);
  append(streamHeaders_[2]);
}

void CLFXDRVWriter::CloseFiles(bool failed) {
  if (!HasOpenFile()) {
    return;
  }
  CloseWriteDrvFile();
  CloseWriteIdxFile();
  ForgetSettled();  // also when nobody calls Flush
  cms::LateRecord late;
  const auto split = cms::SplitAtLastSeparator(drvPath_);
  late.folder = split.folder;
  late.name = split.name;
  late.address = address_;
  late.siteName = siteName_;
  late.port = port_;
  late.start = startTime_;
  late.end = endTime_;
  late.drvPath = drvPath_;
  late.idxPath = idxPath_;
  late.drvStatus = drvStatus_;
  late.idxStatus = idxStatus_;
  late.begin = fileBegin_;
  late.accepted = fileCounts_;
  late.damaged = failed || idxIncomplete_;
  late.counted = failed;
  late.stored = !failed && late.Error() == 0 && recordList_->WriteDBInfoIntoList();
  recordList_.reset();
  late_.push_back(std::move(late));
}

void CLFXDRVWriter::ForgetSettled() {
  const auto settled = [](const auto& late) { return late.IsClosed() && !late.NeedsWork(); };
  if (!rememberFinished_) {
    std::erase_if(late_, settled);
    return;
  }
  // A file that was opened again is not finished, and finished once however often it was.
  while (!late_.empty() && settled(late_.front()) &&
         !(HasOpenFile() && late_.front().drvPath == drvPath_)) {
    const cms::LateRecord late = std::move(late_.front());
    late_.erase(late_.begin());
    const bool again = std::any_of(late_.begin(), late_.end(), [&](const auto& other) {
      return other.drvPath == late.drvPath;
    });
    if (!again && !late.removed) {
      Finish(late);
    }
  }
}

// Whoever takes the file may move it away: the next recording gets a name of its own.
void CLFXDRVWriter::Finish(const cms::LateRecord& late) {
  finished_.push_back({late.drvPath, late.idxPath});
  lastFinished_ = late.drvPath;
  auto& slots = cms::RecordingSlots::Instance();
  const std::int64_t startTime = slots.Use(path_, cms::WallSeconds()).startTime;
  if (!HasOpenFile() && path_ + cms::RecordingStamp(startTime) + L".drv" == late.drvPath) {
    slots.SetStartTime(path_, 0);
  }
}

bool CLFXDRVWriter::IsDamaged(const std::wstring& drvPath) const {
  return std::any_of(late_.begin(), late_.end(), [&](const auto& late) {
    return late.drvPath == drvPath && (late.damaged || late.Error() != 0);
  });
}

void CLFXDRVWriter::NoticeFailure() {
  if (!HasOpenFile()) {
    return;
  }
  int error = drvStatus_->error.load(std::memory_order_relaxed);
  if (error == 0 && idxStatus_) {
    error = idxStatus_->error.load(std::memory_order_relaxed);
  }
  if (error != 0) {
    RecordFailed(error);
  }
}

void CLFXDRVWriter::NoticeVanishedFile() {
  if (!HasOpenFile()) {
    return;
  }
  cms::FileStatus now;
  const bool there = cms::CurrentFileIo().Status(cms::NativePath(drvPath_), now);
  if (there && drvFile_.inode == 0) {  // it could not be asked when it was opened
    drvFile_ = now;
  }
  if (there ? now.inode != drvFile_.inode || now.device != drvFile_.device
            : errno == ENOENT || errno == ENOTDIR) {
    RecordFailed(ENOENT);
  }
}

void CLFXDRVWriter::RecordFailed(int error) {
  status_.lostBytes += std::exchange(buffered_, 0);
  idxBuffered_ = 0;
  CloseFiles(true);
  CountFailure(error);
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

void CLFXDRVWriter::SettleLateRecords() {
  ScopeLock settle(settling_);
  std::vector<cms::LateRecord> work;
  {
    ScopeLock hold(lock_);
    if (late_.empty() || cms::TickMilliseconds() < settleTick_) {
      return;
    }
    work = late_;
  }
  cms::FileIo& io = cms::CurrentFileIo();
  for (cms::LateRecord& late : work) {
    const int failure = late.IsClosed() ? late.Error() : 0;
    const std::uint64_t lost = late.IsClosed() ? late.drvStatus->lost_bytes.exchange(0) : 0;
    const cms::FrameCounts accepted = late.accepted;
    const int error = cms::SettleLateRecord(io, late);
    ScopeLock hold(lock_);
    status_.lostBytes += lost;
    status_.lost.frames += accepted.frames - late.accepted.frames;
    status_.lost.keyFrames += accepted.keyFrames - late.accepted.keyFrames;
    status_.lost.bytes += accepted.bytes - late.accepted.bytes;
    if (failure != 0 && !late.counted) {
      late.counted = true;
      ++status_.failures;
      status_.lastError = failure;
    }
    const auto entry = std::find_if(late_.begin(), late_.end(), [&](const auto& other) {
      return other.drvStatus == late.drvStatus;
    });
    if (error != 0 && error != EAGAIN) {
      settleTick_ = cms::TickMilliseconds() + kSettleMilliseconds;
    }
    if (entry != late_.end()) {
      *entry = std::move(late);
    }
    ForgetSettled();
  }
}

}  // namespace CLFX
