#include "cms/recording/internal/recording_disk.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "cms/recording/internal/write_out.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {
namespace {

constexpr std::uint64_t kNoAnswerMilliseconds = 2000;  // one operation: the disk hangs
constexpr int kEndMilliseconds = 10'000;
constexpr std::chrono::milliseconds kShortRetry{10};  // before a database is asked for again
constexpr std::chrono::milliseconds kLongRetry{500};

std::uint64_t SteadyMilliseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// Never destroyed: threads may outlive static objects. A thread leaves it as the last thing it
// does.
struct Registry {
  CMSCritical lock;
  std::vector<std::shared_ptr<RecordingDisk>> disks CMS_GUARDED_BY(lock);
};
Registry& Disks() {
  static auto& registry = *new Registry;
  return registry;
}

void Forget(const std::shared_ptr<RecordingDisk>& disk) {
  Registry& registry = Disks();
  const ScopeLock hold(registry.lock);
  std::erase(registry.disks, disk);
}

}  // namespace

RecordingDisk::RecordingDisk() = default;
RecordingDisk::~RecordingDisk() = default;

std::shared_ptr<RecordingDisk> RecordingDisk::Start() {
  auto disk = std::make_shared<RecordingDisk>();
  {
    const ScopeLock hold(disk->lock_);
    if (!disk->buffers_.IsReady()) {
      return nullptr;
    }
  }
  {
    Registry& registry = Disks();
    const ScopeLock hold(registry.lock);
    registry.disks.push_back(disk);
  }
  if (!NamedThread::StartDetached("cms-disk", [disk] {
        disk->Work();
        Forget(disk);
      })) {
    Forget(disk);
    return nullptr;
  }
  return disk;
}

// --- Work for the thread ------------------------------------------------------------------------

bool RecordingDisk::HasRoom(unsigned buffers) const {
  const ScopeLock hold(lock_);
  return buffers_.Free() >= buffers + kReserved && HasJobs(buffers + kReservedJobs);
}

bool RecordingDisk::HasBuffer(unsigned reserved) const {
  return buffers_.Free() > reserved && HasJobs(1 + (reserved > 0 ? kReservedJobs : 1));
}

// Null when there is none beside those reserved. A spare one may have gone to another recorder.
std::uint8_t* RecordingDisk::TakeBuffer(unsigned reserved, bool wait) {
  const ScopeLock hold(lock_);
  std::uint8_t* buffer = nullptr;
  do {
    if (wait) {
      changed_.wait(lock_, [&]() CMS_REQUIRES(lock_) { return HasBuffer(reserved); });
    } else if (!HasBuffer(reserved)) {
      return nullptr;
    }
    buffer = buffers_.Take();
  } while (buffer == nullptr && !HasBuffer(reserved));
  return buffer;
}

void RecordingDisk::Push(Job job) {
  job.since = SteadyMilliseconds();
  {
    const ScopeLock hold(lock_);
    jobs_[(first_ + count_) % kMostJobs] = std::move(job);
    ++count_;
  }
  changed_.notify_all();
}

bool RecordingDisk::MayOpen() const {
  const ScopeLock hold(lock_);
  return HasJobs(1 + kReservedJobs);
}

unsigned RecordingDisk::Waiting() const {
  const ScopeLock hold(lock_);
  return count_ + (busySince_ != 0 ? 1u : 0u);
}

std::uint64_t RecordingDisk::OldestMilliseconds() const {
  const ScopeLock hold(lock_);
  const std::uint64_t oldest = workSince_ != 0 ? workSince_ : count_ > 0 ? jobs_[first_].since : 0;
  return oldest == 0 ? 0 : SteadyMilliseconds() - oldest;
}

bool RecordingDisk::Open(const std::shared_ptr<RecordingFile>& file, bool wait) {
  if (wait) {
    const ScopeLock hold(lock_);
    changed_.wait(lock_, [this]() CMS_REQUIRES(lock_) { return HasJobs(1 + kReservedJobs); });
  } else if (!MayOpen()) {
    return false;
  }
  Job job;
  job.kind = Kind::kOpen;
  job.file = file;
  Push(std::move(job));
  return true;
}

bool RecordingDisk::Write(RecordingPart part, std::span<const std::uint8_t> bytes, bool last,
                          bool wait) {
  std::uint8_t* const buffer = TakeBuffer(last ? 0 : kReserved, wait);
  if (buffer == nullptr) {
    return false;
  }
  std::memcpy(buffer, bytes.data(), bytes.size());
  Job job;
  job.kind = Kind::kWrite;
  job.part = part;
  job.length = static_cast<std::uint32_t>(bytes.size());
  job.buffer = buffer;
  Push(std::move(job));
  return true;
}

void RecordingDisk::Close(bool counted) {
  Job job;
  job.counted = counted;
  Push(std::move(job));
}

void RecordingDisk::Look() {
  {
    const ScopeLock hold(lock_);
    if (!isOpen_ && count_ == 0 && unsettled_ == 0 && tasks_.empty()) {
      return;
    }
    look_ = true;
    settle_ = true;
  }
  changed_.notify_all();
}

void RecordingDisk::Store(Task task) {
  {
    const ScopeLock hold(lock_);
    tasks_.push_back(std::move(task));
    settle_ = true;
  }
  changed_.notify_all();
}

// --- Waiting for it -----------------------------------------------------------------------------

bool RecordingDisk::IsIdle() const {
  return count_ == 0 && busySince_ == 0 && !look_ && !settle_ && !again_;
}

bool RecordingDisk::Await(int milliseconds, bool giveUp, const std::function<bool()>& done) const {
  const std::uint64_t begin = SteadyMilliseconds();
  while (!done()) {
    const std::uint64_t now = SteadyMilliseconds();
    std::uint64_t left = 1000;
    if (milliseconds >= 0) {
      const std::uint64_t passed = now - begin;
      if (passed >= static_cast<std::uint64_t>(milliseconds)) {
        return false;
      }
      left = std::min(left, static_cast<std::uint64_t>(milliseconds) - passed);
    }
    if (giveUp && busySince_ != 0) {
      if (now - busySince_ >= kNoAnswerMilliseconds) {
        return false;
      }
      left = std::min(left, kNoAnswerMilliseconds - (now - busySince_));
    }
    changed_.wait_for(lock_, std::chrono::milliseconds(left));
  }
  return true;
}

bool RecordingDisk::WaitOpened(const RecordingFile& file, int milliseconds) const {
  const ScopeLock hold(lock_);
  return Await(milliseconds, false, [&] {
    return file.state.load(std::memory_order_acquire) != RecordingFile::State::kOpening;
  });
}

bool RecordingDisk::WaitIdle(int milliseconds, bool giveUp) const {
  const ScopeLock hold(lock_);
  return Await(milliseconds, giveUp, [this]() CMS_REQUIRES(lock_) { return ended_ || IsIdle(); });
}

bool RecordingDisk::WaitAll(int milliseconds, bool giveUp) {
  std::vector<std::shared_ptr<RecordingDisk>> disks;
  {
    Registry& registry = Disks();
    const ScopeLock hold(registry.lock);
    disks = registry.disks;
  }
  const std::uint64_t begin = SteadyMilliseconds();
  return std::all_of(disks.begin(), disks.end(), [&](const auto& disk) {
    const auto passed = static_cast<int>(SteadyMilliseconds() - begin);
    return disk->WaitIdle(milliseconds < 0 ? -1 : std::max(milliseconds - passed, 0), giveUp) ||
           giveUp;  // the next one may answer
  });
}

void RecordingDisk::End() {
  const ScopeLock hold(lock_);
  ending_ = true;
  settle_ = true;
  changed_.notify_all();
  Await(kEndMilliseconds, true, [this]() CMS_REQUIRES(lock_) { return ended_; });
}

RecordingFiles::Counts RecordingDisk::GetCounts() const {
  const ScopeLock hold(lock_);
  return counts_;
}

std::size_t RecordingDisk::Tasks() const {
  const ScopeLock hold(lock_);
  return tasks_.size();
}

bool RecordingDisk::IsSettled() const {
  const ScopeLock hold(lock_);
  return count_ == 0 && busySince_ == 0 && !isOpen_ && unsettled_ == 0 && finished_.empty();
}

void RecordingDisk::RememberFinished() {
  files_.RememberFinished();
}

std::vector<FinishedRecording> RecordingDisk::TakeFinished() {
  const ScopeLock hold(lock_);
  return std::exchange(finished_, {});
}

// --- The thread ---------------------------------------------------------------------------------

void RecordingDisk::Work() {
  PreferThisThread();
  std::chrono::milliseconds pause = kShortRetry;
  ScopeLock hold(lock_);
  for (;;) {
    if (count_ > 0) {
      Job job = std::move(jobs_[first_]);
      first_ = (first_ + 1) % kMostJobs;
      --count_;
      busySince_ = SteadyMilliseconds();
      workSince_ = job.since;
      hold.UnLock();
      Do(job);
      job.file.reset();
      hold.Lock();
      if (job.buffer != nullptr) {
        buffers_.Give(job.buffer);
      }
      settle_ = settle_ || job.kind != Kind::kWrite;
    } else if (look_ || settle_) {
      const bool look = std::exchange(look_, false);
      const bool last = ending_;
      settle_ = false;
      busySince_ = SteadyMilliseconds();
      hold.UnLock();
      const bool again = Settle(look, last);
      hold.Lock();
      again_ = again;
      pause = again ? std::min(2 * pause, kLongRetry) : kShortRetry;
    } else if (ending_ && !again_) {
      break;
    } else if (again_) {
      if (!changed_.wait_for(lock_, pause, [this]() CMS_REQUIRES(lock_) {
            return count_ > 0 || look_ || settle_;
          })) {
        settle_ = true;
      }
    } else {
      changed_.wait(lock_);
    }
    Publish();
    busySince_ = 0;
    workSince_ = 0;
    changed_.notify_all();
  }
  ended_ = true;
  changed_.notify_all();
}

void RecordingDisk::Do(Job& job) {
  switch (job.kind) {
    case Kind::kOpen:
      files_.Open(job.file);
      break;
    case Kind::kWrite:
      files_.Write(job.part, {job.buffer, job.length});
      break;
    case Kind::kClose:
      files_.Close(job.counted);
      break;
  }
}

// True when another thread was in the way.
bool RecordingDisk::Settle(bool look, bool last) {
  if (look) {
    files_.LookForFile();
  }
  const bool busy = files_.Settle(last);
  {
    const ScopeLock hold(lock_);  // a task may find that the disk does not answer
    Publish();
  }
  const bool tasksBusy = DoTasks();
  if (look) {
    files_.FinishSettled();
  }
  return busy || tasksBusy;
}

bool RecordingDisk::DoTasks() {
  for (;;) {
    Task task;
    {
      const ScopeLock hold(lock_);
      if (tasks_.empty()) {
        return false;
      }
      task = tasks_.front();
    }
    const DiskTaskResult result = task();
    if (result != DiskTaskResult::kDone) {
      return result == DiskTaskResult::kBusy;
    }
    const ScopeLock hold(lock_);
    tasks_.pop_front();
  }
}

void RecordingDisk::Publish() {
  isOpen_ = files_.IsOpen();
  unsettled_ = files_.Unsettled();
  counts_ = files_.GetCounts();
  for (FinishedRecording& file : files_.TakeFinished()) {
    finished_.push_back(std::move(file));
  }
}

}  // namespace cms
