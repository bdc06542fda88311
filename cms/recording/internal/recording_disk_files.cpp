// What a recorder's disk thread does with files.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/drv_format.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/internal/write_out.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr int kNamesToTry = 16;
constexpr std::uint64_t kSettleMilliseconds = 5000;
constexpr std::uint64_t kLargestFile = UINT32_MAX;  // an index record's offset has 32 bits

// How the space of a full disk has to grow before files are begun again, so that recording does not
// resume for a few frames at a time.
constexpr std::uint64_t kSpaceToResume = 32u << 20;

bool IsFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

// The name is somebody else's; another one may do.
bool IsTaken(int error) {
  return error == EWOULDBLOCK || error == EISDIR || error == ETXTBSY;
}

bool HasSpace(const std::wstring& front) {
  FreeSpace space;
  const auto folder = SplitAtLastSeparator(front).folder;
  return !CurrentFileIo().Space(NativePath(folder), space) ||
         space.free_to_caller >= kSpaceToResume;
}

void CloseNew(const RecordingPair& pair) {
  FileIo& io = CurrentFileIo();
  io.Close(pair.drv);
  if (pair.idx >= 0) {
    io.Close(pair.idx);
  }
}

}  // namespace

void RecordingDisk::Do(Job& job) {
  switch (job.kind) {
    case Kind::kOpen:
      OpenFile(job.file);
      break;
    case Kind::kWrite:
      WriteBuffer(job);
      break;
    case Kind::kClose:
      CloseFile(job.counted);
      break;
  }
}

// --- Opening ------------------------------------------------------------------------------------

void RecordingDisk::OpenFile(const std::shared_ptr<RecordingFile>& file) {
  Current next;
  const int error = wasFull_ && !HasSpace(file->front) ? ENOSPC : OpenNew(*file, next);
  auto state = RecordingFile::State::kOpen;
  if (error == 0) {
    wasFull_ = false;
    CloseFile(false);
    current_ = std::move(next);
    file->idxError = current_.pair.idxError;
  } else if (current_.IsOpen() && current_.error == 0) {
    state = RecordingFile::State::kContinued;
  } else {
    wasFull_ = wasFull_ || IsFull(error);
    CloseFile(false);
    state = RecordingFile::State::kFailed;
  }
  file->openError = error;
  file->drvPath = current_.drvPath;
  file->begin = current_.end;
  current_.parts.push_back(file);
  file->state.store(state, std::memory_order_release);
  if (state == RecordingFile::State::kOpen) {
    PrepareRecordList(std::wstring(SplitAtLastSeparator(file->front).folder));
  }
}

int RecordingDisk::OpenNew(const RecordingFile& file, Current& next) {
  int error = EWOULDBLOCK;
  for (int i = 0; i < kNamesToTry && IsTaken(error); ++i) {
    error = OpenNamed(file, file.startTime + i, next);
    if (error == 0 && i > 0) {
      RecordingSlots::Instance().SetStartTime(file.front, file.startTime + i);
    }
  }
  return error;
}

int RecordingDisk::OpenNamed(const RecordingFile& file, std::int64_t time, Current& next) {
  const std::wstring stem = file.front + RecordingStamp(time);
  next.drvPath = stem + L".drv";
  next.idxPath = stem + L".idx";
  if (Utf16Length(next.drvPath) > kLongestRecordedPath) {
    return ENAMETOOLONG;
  }
  const bool damaged = std::any_of(late_.begin(), late_.end(), [&](const auto& late) {
    return late.drvPath == next.drvPath && late.damaged;
  });
  if (damaged || next.drvPath == lastFinished_) {
    return EWOULDBLOCK;
  }
  FileIo& io = CurrentFileIo();
  const int error = OpenRecordingPair(io, next.drvPath, next.idxPath, next.pair);
  if (error != 0) {
    // Without the right to make files in the folder no other name helps.
    const bool refused = error == EACCES || error == EPERM;
    return refused && io.Exists(NativePath(next.drvPath)) ? EWOULDBLOCK : error;
  }
  if (!MayTake(next.pair, next.drvPath)) {
    CloseNew(next.pair);
    next.pair = {};
    return EWOULDBLOCK;
  }
  return BeginNew(file, next);
}

// What was finished may be on its way to another place: only what was closed since goes on.
bool RecordingDisk::MayTake(const RecordingPair& pair, const std::wstring& drvPath) const {
  if (pair.drvSize >= kLargestFile) {
    return false;
  }
  const Lock lock(mutex_);
  return pair.drvSize == 0 || !rememberFinished_ ||
         std::any_of(late_.begin(), late_.end(),
                     [&](const auto& late) { return late.drvPath == drvPath; });
}

int RecordingDisk::BeginNew(const RecordingFile& file, Current& next) const {
  next.fresh = next.pair.drvSize == 0;
  next.end = next.pair.drvSize;
  if (next.fresh && !file.headers.empty()) {
    std::uint32_t written = 0;
    const int error = WriteOut(CurrentFileIo(), next.pair.drv, file.headers.data(),
                               static_cast<std::uint32_t>(file.headers.size()), written);
    if (error != 0) {
      CurrentFileIo().Remove(NativePath(next.idxPath));
      CurrentFileIo().Remove(NativePath(next.drvPath));
      CloseNew(next.pair);
      next.pair = {};
      return error;
    }
    next.end = written;
  }
  next.begin = next.end;
  return 0;
}

// --- Writing ------------------------------------------------------------------------------------

void RecordingDisk::WriteBuffer(Job& job) {
  const bool data = job.part == Part::kDrv;
  const int handle = data ? current_.pair.drv : current_.pair.idx;
  std::uint32_t written = 0;
  if (handle >= 0 && current_.error == 0) {
    if (!data) {
      const std::uint64_t begin = current_.parts.back()->begin;
      for (std::uint32_t at = 0; begin != 0 && at < job.length; at += sizeof(DrvIdx)) {
        DrvIdx record;
        std::memcpy(&record, job.buffer + at, sizeof record);
        record.offset = static_cast<std::uint32_t>(record.offset + begin);
        std::memcpy(job.buffer + at, &record, sizeof record);
      }
    }
    const bool fits = !data || current_.end + job.length <= kLargestFile;
    const int error =
        fits ? WriteOut(CurrentFileIo(), handle, job.buffer, job.length, written) : EFBIG;
    current_.end += data ? written : 0;
    if (error != 0) {
      Fail(error);
    }
  }
  if (data && written < job.length) {
    CountLost(job.length - written, {}, {});
  }
}

// Nothing is written behind a hole: what follows is refused until the file is closed.
void RecordingDisk::Fail(int error) {
  current_.error = error;
  wasFull_ = IsFull(error);
  for (const auto& part : current_.parts) {
    int none = 0;
    part->error.compare_exchange_strong(none, error, std::memory_order_release);
  }
}

void RecordingDisk::LookForFile() {
  if (!current_.IsOpen() || current_.error != 0) {
    return;
  }
  FileStatus now;
  const bool there = CurrentFileIo().Status(NativePath(current_.drvPath), now);
  FileStatus& opened = current_.pair.drvFile;
  if (there && opened.inode == 0) {  // it could not be asked when it was opened
    opened = now;
  }
  if (there ? now.inode != opened.inode || now.device != opened.device
            : errno == ENOENT || errno == ENOTDIR) {
    Fail(ENOENT);
  }
}

// --- Closing ------------------------------------------------------------------------------------

void RecordingDisk::CloseFile(bool counted) {
  if (current_.parts.empty()) {
    return;
  }
  Current closed = std::exchange(current_, {});
  LateRecord late;
  for (const auto& part : closed.parts) {
    if (part->start != 0) {
      late.start = late.start == 0 ? part->start : std::min(late.start, part->start);
      late.end = std::max(late.end, part->end);
    }
    late.accepted.frames += part->accepted.frames;
    late.accepted.keyFrames += part->accepted.keyFrames;
    late.accepted.bytes += part->accepted.bytes;
  }
  const RecordingFile& first = *closed.parts.front();
  int error = closed.IsOpen() ? closed.error : first.openError;
  FileIo& io = CurrentFileIo();
  const bool empty = late.accepted.frames == 0 && error == 0;
  if (empty && closed.fresh) {  // while it is locked: nobody else may have begun to record into it
    io.Remove(NativePath(closed.idxPath));
    io.Remove(NativePath(closed.drvPath));
  }
  for (const int handle : {closed.pair.drv, closed.pair.idx}) {
    // A network file tells only now that it could not keep what it took.
    if (handle >= 0 && io.Close(handle) != 0 && error == 0) {
      error = errno;
    }
  }
  if (error != 0 && !counted) {
    const Lock lock(mutex_);
    ++counts_.failures;
    counts_.lastError = error;
  }
  if (!closed.IsOpen()) {
    CountLost(0, late.accepted, {});
    return;
  }
  if (empty && !counted) {
    return;
  }
  const auto split = SplitAtLastSeparator(closed.drvPath);
  late.front = first.front;
  late.folder = split.folder;
  late.name = split.name;
  late.address = first.address;
  late.siteName = first.siteName;
  late.port = first.port;
  late.drvPath = closed.drvPath;
  late.idxPath = closed.idxPath;
  late.begin = closed.begin;
  late.damaged = counted || error != 0 || closed.pair.idx < 0;
  late_.push_back(std::move(late));
  const Lock lock(mutex_);
  unsettled_ = late_.size();
}

// --- What is owed -------------------------------------------------------------------------------

// True when another thread was in the way.
bool RecordingDisk::Settle() {
  const bool files = SettleFiles();
  const bool tasks = DoTasks();
  return files || tasks;
}

bool RecordingDisk::SettleFiles() {
  bool last = false;
  bool remember = false;
  {
    const Lock lock(mutex_);
    last = ending_;
    remember = rememberFinished_;
  }
  bool busy = false;
  const std::uint64_t now = TickMilliseconds();
  for (LateRecord& late : late_) {
    if (!late.NeedsWork() || (now < settleTick_ && !last)) {
      continue;
    }
    const FrameCounts accepted = late.accepted;
    const int error = SettleLateRecord(CurrentFileIo(), late);
    CountLost(0, accepted, late.accepted);
    busy = busy || error == EBUSY;
    if (error != 0 && error != EBUSY) {
      settleTick_ = now + kSettleMilliseconds;
    }
  }
  if (!remember) {
    std::erase_if(late_, [](const auto& late) { return !late.NeedsWork(); });
  }
  const Lock lock(mutex_);
  unsettled_ = late_.size();
  counts_.lateRecords = static_cast<std::uint64_t>(
      std::count_if(late_.begin(), late_.end(), [](const auto& late) { return late.NeedsWork(); }));
  return busy;
}

bool RecordingDisk::DoTasks() {
  for (;;) {
    Task task;
    {
      const Lock lock(mutex_);
      if (tasks_.empty()) {
        return false;
      }
      task = tasks_.front();
    }
    const DiskTaskResult result = task();
    if (result != DiskTaskResult::kDone) {
      return result == DiskTaskResult::kBusy;
    }
    const Lock lock(mutex_);
    tasks_.pop_front();
  }
}

// In the order in which they were begun. A file that was opened again is not finished, and finished
// once however often it was.
void RecordingDisk::ForgetSettled() {
  while (!late_.empty() && !late_.front().NeedsWork() &&
         !(current_.IsOpen() && late_.front().drvPath == current_.drvPath)) {
    const LateRecord late = std::move(late_.front());
    late_.erase(late_.begin());
    const bool again = std::any_of(late_.begin(), late_.end(), [&](const auto& other) {
      return other.drvPath == late.drvPath;
    });
    if (!again && !late.removed) {
      Finish(late);
    }
  }
  const Lock lock(mutex_);
  unsettled_ = late_.size();
}

// Whoever takes the file may move it away: the next recording gets a name of its own.
void RecordingDisk::Finish(const LateRecord& late) {
  lastFinished_ = late.drvPath;
  auto& slots = RecordingSlots::Instance();
  const std::int64_t startTime = slots.Use(late.front, WallSeconds()).startTime;
  if (!current_.IsOpen() && late.front + RecordingStamp(startTime) + L".drv" == late.drvPath) {
    slots.SetStartTime(late.front, 0);
  }
  const Lock lock(mutex_);
  finished_.push_back({late.drvPath, late.idxPath});
}

void RecordingDisk::CountLost(std::uint64_t bytes, const FrameCounts& accepted,
                              const FrameCounts& kept) {
  const Lock lock(mutex_);
  counts_.lostBytes += bytes;
  counts_.lost.frames += accepted.frames - kept.frames;
  counts_.lost.keyFrames += accepted.keyFrames - kept.keyFrames;
  counts_.lost.bytes += accepted.bytes - kept.bytes;
}

}  // namespace cms
