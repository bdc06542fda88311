#include "cms/recording/internal/recording_files.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "cms/recording/internal/recording_slots.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr int kNamesToTry = 16;
constexpr std::uint64_t kSettleMilliseconds = 5000;

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

// `path` is that of a file, or the beginning of one's that has no name yet.
void LogTrouble(const std::wstring& path, const char* what, int error) {
  if (IsLogged(LogLevel::kError)) {
    Log(LogLevel::kError, "recording",
        NativePath(path) + ": " + what + ": " + std::generic_category().message(error) +
            (IsFull(error) ? "; free space on that disk" : "; look after the disk and its rights"));
  }
}

void LogEnd(const OpenRecording::End& end) {
  if (end.wasOpen && IsLogged(LogLevel::kInfo)) {
    Log(LogLevel::kInfo, "recording",
        NativePath(end.record.drvPath) + ": ended, " + std::to_string(end.record.accepted.frames) +
            " frames, " + std::to_string(end.record.accepted.bytes) + " bytes");
  }
}

bool HasSpace(const std::wstring& front) {
  FreeSpace space;
  const auto folder = SplitAtLastSeparator(front).folder;
  return !CurrentFileIo().Space(NativePath(folder), space) || space.freeToCaller >= kSpaceToResume;
}

}  // namespace

// --- Opening ------------------------------------------------------------------------------------

void RecordingFiles::Open(const std::shared_ptr<RecordingFile>& file) {
  OpenRecording next;
  const int error = wasFull_ && !HasSpace(file->front) ? ENOSPC : OpenNew(*file, next);
  auto state = RecordingFile::State::kOpen;
  if (error == 0) {
    wasFull_ = false;
    Close(false);
    current_ = std::move(next);
    file->idxError = current_.IdxError();
    if (IsLogged(LogLevel::kInfo)) {
      Log(LogLevel::kInfo, "recording", NativePath(current_.Record().drvPath) + ": begun");
    }
  } else if (current_.TakesFrames()) {
    state = RecordingFile::State::kContinued;
    LogTrouble(file->front, "no new file, the one before goes on", error);
  } else {
    wasFull_ = wasFull_ || IsFull(error);
    Close(false);
    state = RecordingFile::State::kFailed;
    LogTrouble(file->front, "no recording can be begun", error);
  }
  file->openError = error;
  current_.AddPart(file);
  file->state.store(state, std::memory_order_release);
  if (state == RecordingFile::State::kOpen) {
    PrepareRecordList(std::wstring(SplitAtLastSeparator(file->front).folder));
  }
}

int RecordingFiles::OpenNew(const RecordingFile& file, OpenRecording& next) {
  int error = EWOULDBLOCK;
  for (int i = 0; i < kNamesToTry && IsTaken(error); ++i) {
    next = OpenRecording(file, file.startTime + i);
    error = OpenNamed(file, next);
    if (error == 0 && i > 0) {
      RecordingSlots::Instance().SetStartTime(file.front, file.startTime + i);
    }
  }
  return error;
}

// What was finished may be on its way to another place: only what was closed since goes on.
int RecordingFiles::OpenNamed(const RecordingFile& file, OpenRecording& next) const {
  const std::wstring& drvPath = next.Record().drvPath;
  if (IsLate(drvPath, true) || drvPath == lastFinished_) {
    return EWOULDBLOCK;
  }
  if (const int error = next.Open(); error != 0) {
    // Without the right to make files in the folder no other name helps.
    const bool refused = error == EACCES || error == EPERM;
    return refused && CurrentFileIo().Exists(NativePath(drvPath)) ? EWOULDBLOCK : error;
  }
  const bool mayGoOn = next.Size() < OpenRecording::kLargestFile &&
                       (next.Size() == 0 || !IsRemembering() || IsLate(drvPath, false));
  if (!mayGoOn) {
    next.GiveUp();
    return EWOULDBLOCK;
  }
  return next.Begin(file.headers);
}

bool RecordingFiles::IsLate(const std::wstring& drvPath, bool damaged) const {
  return std::any_of(late_.begin(), late_.end(), [&](const FileRecord& late) {
    return late.drvPath == drvPath && (late.damaged || !damaged);
  });
}

// --- While it is open ---------------------------------------------------------------------------

void RecordingFiles::Write(RecordingPart part, std::span<std::uint8_t> bytes) {
  std::uint32_t written = 0;
  const int error = current_.Write(part, bytes, written);
  NoteFailure(error);
  if (error != 0) {
    LogTrouble(current_.Record().drvPath, "cannot be written", error);
  }
  if (part == RecordingPart::kDrv) {
    CountLost(bytes.size() - written, {}, {});
  }
}

void RecordingFiles::LookForFile() {
  const int error = current_.Look();
  NoteFailure(error);
  if (error != 0) {
    LogTrouble(current_.Record().drvPath, "is not where it was any more", error);
  }
}

void RecordingFiles::NoteFailure(int error) {
  wasFull_ = error != 0 ? IsFull(error) : wasFull_;
}

void RecordingFiles::Close(bool counted) {
  if (!current_.IsInUse()) {
    return;
  }
  OpenRecording::End end = current_.Close(counted);
  LogEnd(end);
  if (end.error != 0 && !counted) {
    ++counts_.failures;
    counts_.lastError = end.error;
  }
  if (!end.wasOpen) {
    CountLost(0, end.record.accepted, {});
  }
  if (end.owed) {
    late_.push_back(std::move(end.record));
  }
}

// --- What is owed -------------------------------------------------------------------------------

bool RecordingFiles::Settle(bool last) {
  bool busy = false;
  const std::uint64_t now = TickMilliseconds();
  for (FileRecord& late : late_) {
    if (!late.NeedsWork() || (now < settleTick_ && !last)) {
      continue;
    }
    const FrameCounts accepted = late.accepted;
    const bool damaged = late.damaged;
    const int error = SettleFileRecord(CurrentFileIo(), late);
    if (error != 0 && error != EBUSY) {
      LogTrouble(late.drvPath, "not mended or listed yet", error);
    } else if (damaged && !late.damaged) {
      Log(LogLevel::kWarning, "recording", NativePath(late.drvPath) + ": its end was mended");
    }
    CountLost(0, accepted, late.accepted);
    busy = busy || error == EBUSY;
    if (error != 0 && error != EBUSY) {
      settleTick_ = now + kSettleMilliseconds;
    }
  }
  if (!IsRemembering()) {
    std::erase_if(late_, [](const auto& late) { return !late.NeedsWork(); });
  }
  counts_.lateRecords = static_cast<std::uint64_t>(
      std::count_if(late_.begin(), late_.end(), [](const auto& late) { return late.NeedsWork(); }));
  return busy;
}

// A file that was opened again is not finished, and finished once however often it was.
void RecordingFiles::FinishSettled() {
  while (!late_.empty() && !late_.front().NeedsWork() &&
         !(current_.IsOpen() && late_.front().drvPath == current_.Record().drvPath)) {
    const FileRecord record = std::move(late_.front());
    late_.erase(late_.begin());
    if (!IsLate(record.drvPath, false) && !record.removed) {
      Finish(record);
    }
  }
}

// Whoever takes the file may move it away: the next recording gets a name of its own.
void RecordingFiles::Finish(const FileRecord& record) {
  lastFinished_ = record.drvPath;
  auto& slots = RecordingSlots::Instance();
  const std::int64_t startTime = slots.Use(record.front, WallSeconds()).startTime;
  if (!current_.IsOpen() && record.front + RecordingStamp(startTime) + L".drv" == record.drvPath) {
    slots.SetStartTime(record.front, 0);
  }
  finished_.push_back({record.drvPath, record.idxPath});
}

std::vector<FinishedRecording> RecordingFiles::TakeFinished() {
  return std::exchange(finished_, {});
}

void RecordingFiles::CountLost(std::uint64_t bytes, const FrameCounts& accepted,
                               const FrameCounts& kept) {
  counts_.lostBytes += bytes;
  counts_.lost.frames += accepted.frames - kept.frames;
  counts_.lost.keyFrames += accepted.keyFrames - kept.keyFrames;
  counts_.lost.bytes += accepted.bytes - kept.bytes;
}

}  // namespace cms
