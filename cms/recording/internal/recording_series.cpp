#include "cms/recording/internal/recording_series.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

using State = RecordingFile::State;

constexpr std::uint64_t kSilentMilliseconds = 10'000;   // no frame for so long: none is expected
constexpr std::uint64_t kKeylessMilliseconds = 10'000;  // no key frame for so long: likewise
constexpr unsigned kBackedUp = 4;  // jobs that wait: handing over small buffers would not help
constexpr unsigned kRoomToResume = DiskBuffers::kOwn - RecordingDisk::kReserved;

void LogDisk(LogLevel level, const std::wstring& path, const char* what) {
  if (IsLogged(level)) {
    Log(level, "disk", NativePath(path) + ": " + what);
  }
}

}  // namespace

// --- Starting and stopping ----------------------------------------------------------------------

bool RecordingSeries::Start(std::wstring path, int sizeMiB, int limit2) {
  CloseFiles(false);
  started_ = false;
  if (sizeMiB < 1 || limit2 < 1 || !Prepare()) {
    return false;
  }
  target_.sizeMiB = sizeMiB;
  target_.limit2 = limit2;
  target_.path = std::move(path);
  target_.newPath.reset();
  forceChange_ = false;
  stalled_ = false;
  lastKeyTick_ = TickMilliseconds();
  if (!MayBegin()) {
    return false;
  }
  if (!neverWait_) {
    return BeginFile();
  }
  started_ = true;
  if (failing_) {
    status_.error = status_.lastError;
  }
  if (!failing_ || MayTry()) {  // else the owner's clock and key frames try again
    BeginFile();
  }
  return true;
}

bool RecordingSeries::ConfirmStart(const std::shared_ptr<RecordingFile>& file) {
  Notice();
  started_ = open_.file == file;
  return started_;
}

void RecordingSeries::Stop() {
  CloseFiles(false);
  started_ = false;
  stalled_ = false;
  forceChange_ = false;
  target_.TakeNewPath();
  status_.error = 0;
}

// What a recording needs in memory.
bool RecordingSeries::Prepare() {
  frames_.Allocate();
  index_.Allocate();
  if (disk_) {
    return true;
  }
  disk_ = RecordingDisk::Start();
  if (!disk_) {
    CountFailure(EAGAIN);
    return false;
  }
  if (rememberFinished_) {
    disk_->RememberFinished();
  }
  return true;
}

void RecordingSeries::RememberFinished() {
  rememberFinished_ = true;
  if (disk_) {
    disk_->RememberFinished();
  }
}

// --- Changing files -----------------------------------------------------------------------------

void RecordingSeries::ChangePath(std::wstring path) {
  if (HasOpenFile() && path != target_.path) {
    target_.newPath = std::move(path);
  } else {
    target_.newPath.reset();
    target_.path = std::move(path);
  }
}

bool RecordingSeries::IsSilent() const {
  return TickMilliseconds() - open_.lastFrameTick >= kSilentMilliseconds;
}

bool RecordingSeries::MayTry() const {
  return pause_.IsOver(TickMilliseconds());
}

bool RecordingSeries::MustChange() const {
  return forceChange_ || target_.newPath ||
         open_.begin + open_.file->accepted.bytes >= target_.Size() + open_.slot.SizeStagger();
}

bool RecordingSeries::IsChangeWanted(std::uint64_t length) const {
  const bool wanted = !open_.file || (!open_.probing && (MustChange() || !Fits(length)));
  return wanted && MayBegin() && MayTry();
}

bool RecordingSeries::IsDue() const {
  const bool changes = HasOpenFile() && forceChange_ && HasFrame() && IsSilent();
  const bool resumes = started_ && !open_.file && failing_;
  return (changes || resumes) && MayTry();
}

bool RecordingSeries::Change() {
  if (!disk_) {
    return false;
  }
  const std::wstring& target = target_.NextPath();
  const std::int64_t startTime = RecordingSlots::Instance().Use(target, WallSeconds()).startTime;
  if (HasOpenFile() && target + RecordingStamp(startTime) + L".drv" == DrvPath()) {
    return true;  // still its second: what asked for the change asks again
  }
  target_.TakeNewPath();
  return MayBegin() && BeginFile();
}

// The disk ends the file before it once it has opened this one.
bool RecordingSeries::BeginFile() {
  if (neverWait_ && !disk_->MayOpen()) {
    failing_ = failing_ || !open_.file;  // else the file before it goes on
    status_.error = open_.file ? 0 : ETIMEDOUT;
    return false;
  }
  const auto slot = RecordingSlots::Instance().Use(target_.path, WallSeconds());
  auto file = target_.FileOf(slot.startTime);
  HandOverEnd();
  disk_->Open(file, !neverWait_);
  open_ = {};
  open_.file = std::move(file);
  open_.slot = slot;
  open_.probing = failing_;
  open_.lastFrameTick = TickMilliseconds();
  ++number_;
  forceChange_ = false;
  ++status_.files;
  return true;
}

void RecordingSeries::HandOverEnd() {
  MemoryRecordToFile(true);
  MemoryIdxToFile(true);
}

void RecordingSeries::CloseFiles(bool failed) {
  if (open_.file) {
    HandOverEnd();
    disk_->Close(failed);
    open_ = {};
  }
}

std::wstring RecordingSeries::DrvPath() const {
  if (!HasOpenFile()) {
    return {};
  }
  const RecordingFile& file = *open_.file;
  return file.state.load(std::memory_order_acquire) == State::kOpening
             ? file.front + RecordingStamp(file.startTime) + L".drv"
             : file.drvPath;
}

// --- Frames -------------------------------------------------------------------------------------

// A key frame, or what comes when none does: a stream may refresh its pictures bit by bit, or be
// sound alone.
bool RecordingSeries::Begins(bool key) {
  const std::uint64_t now = TickMilliseconds();
  if (key) {
    lastKeyTick_ = now;
    return true;
  }
  const bool keyless = !open_.file || open_.file->accepted.keyFrames == 0;
  return (keyless || stalled_) && now - lastKeyTick_ >= kKeylessMilliseconds;
}

bool RecordingSeries::Takes(std::uint64_t length, bool begins) {
  if (!HasOpenFile() || (!begins && !HasFrame()) || !HasRoom(length, begins)) {
    return Drop();
  }
  if (!Fits(length)) {
    CloseFiles(false);
    return Drop();
  }
  return true;
}

bool RecordingSeries::Drop() {
  ++(status_.error != 0 ? status_.failedFrames : status_.waitingFrames);
  return false;
}

// Whoever may not wait for a slow disk drops whole groups of pictures.
bool RecordingSeries::HasRoom(std::uint64_t length, bool begins) {
  const std::uint64_t buffered = frames_.Length() + length;
  if (!neverWait_ || (!stalled_ && buffered <= open_.slot.FlushThreshold())) {
    return true;
  }
  if (stalled_ && (!begins || !disk_->HasRoom(kRoomToResume))) {
    return false;
  }
  const bool room = disk_->HasRoom(static_cast<unsigned>(buffered / RecordingBuffer::kSize) + 2);
  if (!room && !stalled_) {
    ++status_.failures;
    status_.lastError = ETIMEDOUT;
    LogDisk(LogLevel::kError, target_.path,
            "the disk does not keep up, frames are dropped; it is too slow or hangs");
  } else if (room && stalled_) {
    ++status_.resumptions;
    LogDisk(LogLevel::kInfo, target_.path, "the disk takes frames again");
  }
  stalled_ = !room;
  status_.error = room ? 0 : ETIMEDOUT;
  return room;
}

// An index record's offset has 32 bits.
bool RecordingSeries::Fits(std::uint64_t length) const {
  return Offset() + length <= UINT32_MAX;
}

std::uint64_t RecordingSeries::Offset() const {
  return open_.begin + open_.handedOver + frames_.Length();
}

void RecordingSeries::Add(std::span<const std::span<const std::uint8_t>> blocks,
                          std::uint64_t length) {
  if (frames_.Length() + length > open_.slot.FlushThreshold()) {
    MemoryRecordToFile(false);
  }
  for (std::span<const std::uint8_t> rest : blocks) {
    while (!rest.empty()) {
      if (frames_.Room() == 0) {  // a frame larger than the buffer
        MemoryRecordToFile(false);
      }
      const auto place = frames_.Extend(rest.size());
      std::memcpy(place.data(), rest.data(), place.size());
      rest = rest.subspan(place.size());
    }
  }
}

void RecordingSeries::CountFrame(std::uint64_t length, bool key) {
  open_.lastFrameTick = TickMilliseconds();
  status_.lastFrameTick = open_.lastFrameTick;
  const std::uint64_t keys = key ? 1 : 0;
  ++status_.frames;
  status_.keyFrames += keys;
  status_.bytes += length;
  FrameCounts& accepted = open_.file->accepted;
  ++accepted.frames;
  accepted.keyFrames += keys;
  accepted.bytes += length;
}

void RecordingSeries::AddIndex(DrvIdx record) {
  if (!open_.file) {
    return;
  }
  if (index_.Room() < sizeof record) {
    MemoryIdxToFile(false);
  }
  record.offset -= static_cast<std::uint32_t>(open_.begin);
  const auto bytes = BytesOf(record);
  std::memcpy(index_.Extend(bytes.size()).data(), bytes.data(), bytes.size());
}

void RecordingSeries::Flush(std::uint32_t age) {
  const std::uint64_t now = TickMilliseconds();
  const bool helps = age == 0 || disk_->Waiting() < kBackedUp;
  if ((frames_.IsOld(now, age) || index_.IsOld(now, age)) && helps && disk_->HasRoom(2)) {
    MemoryRecordToFile(false);  // no index record stands on disk before its frame
    MemoryIdxToFile(false);
  }
}

void RecordingSeries::MemoryRecordToFile(bool last) {
  const std::uint32_t length = frames_.Length();
  if (!HandOver(RecordingPart::kDrv, frames_, last)) {
    status_.lostBytes += length;
  }
  open_.handedOver += length;
}

void RecordingSeries::MemoryIdxToFile(bool last) {
  HandOver(RecordingPart::kIdx, index_, last);
}

// What the disk has no room for leaves a hole: the file ends there.
bool RecordingSeries::HandOver(RecordingPart part, RecordingBuffer& buffer, bool last) {
  if (!open_.file || buffer.Length() == 0) {
    return true;
  }
  const bool taken = disk_->Write(part, buffer.Bytes(), last, !neverWait_);
  if (!taken) {
    open_.file->error = ETIMEDOUT;
  }
  buffer.Clear();
  return taken;
}

// --- After a failure ----------------------------------------------------------------------------

void RecordingSeries::Notice() {
  if (open_.file && !open_.known) {
    NoticeOpened();
  }
  if (open_.file) {
    if (const int error = open_.file->error.load(std::memory_order_acquire); error != 0) {
      RecordFailed(error);
    }
  }
}

void RecordingSeries::NoticeOpened() {
  const RecordingFile& file = *open_.file;
  const State state = file.state.load(std::memory_order_acquire);
  if (state == State::kOpening) {
    return;
  }
  open_.known = true;
  open_.begin = file.begin;
  if (state == State::kFailed) {
    --status_.files;
    RecordFailed(file.openError);
    return;
  }
  const int lasting = stalled_ ? status_.error : 0;  // for which no file helps
  const int error = std::exchange(status_.error, lasting);
  if (state == State::kContinued) {  // until it is tried again
    --status_.files;
    CountFailure(file.openError);
    status_.error = lasting;
    forceChange_ = true;
    return;
  }
  status_.resumptions += error != 0 && !stalled_ ? 1 : 0;
  failing_ = false;
  open_.probing = false;
  if (file.idxError != 0) {
    status_.lastError = file.idxError;
    ++status_.failures;
  }
}

void RecordingSeries::RecordFailed(int error) {
  status_.lostBytes += frames_.Length();
  frames_.Clear();
  index_.Clear();
  CloseFiles(true);
  CountFailure(error);
  failing_ = true;
}

void RecordingSeries::CountFailure(int error) {
  ++status_.failures;
  status_.error = error;
  status_.lastError = error;
  pause_.Failed(TickMilliseconds());
}

int RecordingSeries::PendingError() const {
  if (!open_.file) {
    return 0;
  }
  const bool failed = open_.file->state.load(std::memory_order_acquire) == State::kFailed;
  return failed ? open_.file->openError : open_.file->error.load(std::memory_order_acquire);
}

RecordingStatus RecordingSeries::Status() const {
  RecordingStatus status = status_;
  if (const int error = PendingError(); error != 0) {
    status.error = error;
    status.lastError = error;
  }
  status.state = status.error != 0             ? RecordingState::kFailed
                 : HasOpenFile() && HasFrame() ? RecordingState::kRecording
                 : HasOpenFile() || started_   ? RecordingState::kWaitingForKeyFrame
                                               : RecordingState::kIdle;
  if (disk_) {
    const RecordingFiles::Counts counts = disk_->GetCounts();
    status.lostBytes += counts.lostBytes;
    status.lost = counts.lost;
    status.failures += counts.failures;
    status.lastError = status.lastError != 0 ? status.lastError : counts.lastError;
    status.lateRecords = counts.lateRecords;
    status.lateEvents = disk_->Tasks();
    status.waitingJobs = disk_->Waiting();
    status.oldestWaitingMs = disk_->OldestMilliseconds();
  }
  return status;
}

}  // namespace cms
