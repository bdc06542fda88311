// How a recorder's disk thread takes work and is waited for; what it does is in
// recording_disk_files.cpp.
#include "cms/recording/internal/recording_disk.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "cms/recording/internal/write_out.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {
namespace {

constexpr std::uint64_t kNoAnswerMilliseconds = 2000;  // one operation: the disk hangs
constexpr int kEndMilliseconds = 10'000;
constexpr std::chrono::milliseconds kShortRetry{10};  // before a database is asked for again
constexpr std::chrono::milliseconds kLongRetry{500};

std::atomic<unsigned> spareBuffers{RecordingDisk::kSpareBuffers};

bool TakeSpare() {
  unsigned left = spareBuffers.load(std::memory_order_relaxed);
  while (left > 0 && !spareBuffers.compare_exchange_weak(left, left - 1)) {
  }
  return left > 0;
}

std::uint64_t SteadyMilliseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// Never destroyed: threads may outlive static objects. A thread leaves it as the last thing it
// does.
struct Registry {
  std::mutex mutex;
  std::vector<std::shared_ptr<RecordingDisk>> disks;
};
Registry& Disks() {
  static auto& registry = *new Registry;
  return registry;
}

void Forget(const std::shared_ptr<RecordingDisk>& disk) {
  const std::lock_guard lock(Disks().mutex);
  std::erase(Disks().disks, disk);
}

}  // namespace

RecordingDisk::RecordingDisk()
    : memory_(new (std::nothrow) std::uint8_t[std::size_t{kOwnBuffers} * kBufferSize]) {
  free_.reserve(kOwnBuffers);
  for (unsigned i = kOwnBuffers; memory_ && i > 0; --i) {
    free_.push_back(memory_.get() + std::size_t{i - 1} * kBufferSize);
  }
}

RecordingDisk::~RecordingDisk() = default;

std::shared_ptr<RecordingDisk> RecordingDisk::Start() {
  auto disk = std::make_shared<RecordingDisk>();
  if (!disk->memory_) {
    return nullptr;
  }
  {
    const std::lock_guard lock(Disks().mutex);
    Disks().disks.push_back(disk);
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

// --- Memory -------------------------------------------------------------------------------------

// The process may have fewer to spare by the time that one is taken.
unsigned RecordingDisk::FreeBuffers() const {
  const unsigned spare = spareBuffers.load(std::memory_order_relaxed);
  return static_cast<unsigned>(free_.size()) +
         std::min(spare, kMostBuffers - kOwnBuffers - spareUsed_);
}

bool RecordingDisk::HasJobs(unsigned jobs) const {
  return count_ + jobs <= kMostJobs;
}

bool RecordingDisk::HasRoom(unsigned buffers) const {
  const Lock lock(mutex_);
  return FreeBuffers() >= buffers + kReserved && HasJobs(buffers + kReservedJobs);
}

// One of the recorder's own if there is any, of those the one used last: it is in the processor's
// cache. Null when there is none, or none is left beside those reserved.
std::uint8_t* RecordingDisk::TakeBuffer(unsigned reserved, bool wait) {
  Lock lock(mutex_);
  const auto isThere = [&] {
    return FreeBuffers() > reserved && HasJobs(1 + (reserved > 0 ? kReservedJobs : 1));
  };
  for (bool spare = false; !spare;) {
    if (wait) {
      changed_.wait(lock, isThere);
    } else if (!isThere()) {
      return nullptr;
    }
    if (!free_.empty()) {
      std::uint8_t* const buffer = free_.back();
      free_.pop_back();
      return buffer;
    }
    spare = TakeSpare();
  }
  ++spareUsed_;
  lock.unlock();
  auto* const buffer = new (std::nothrow) std::uint8_t[kBufferSize];
  if (buffer == nullptr) {
    lock.lock();
    --spareUsed_;
    ++spareBuffers;
  }
  return buffer;
}

void RecordingDisk::GiveBuffer(std::uint8_t* buffer) {
  const std::uint8_t* const begin = memory_.get();
  if (buffer >= begin && buffer < begin + std::size_t{kOwnBuffers} * kBufferSize) {
    free_.push_back(buffer);
    return;
  }
  delete[] buffer;
  --spareUsed_;
  ++spareBuffers;
}

// --- Work for the thread ------------------------------------------------------------------------

void RecordingDisk::Push(Job job) {
  {
    const Lock lock(mutex_);
    jobs_[(first_ + count_) % kMostJobs] = std::move(job);
    ++count_;
  }
  changed_.notify_all();
}

bool RecordingDisk::MayOpen() const {
  const Lock lock(mutex_);
  return HasJobs(1 + kReservedJobs);
}

unsigned RecordingDisk::Waiting() const {
  const Lock lock(mutex_);
  return count_ + (busySince_ != 0 ? 1u : 0u);
}

bool RecordingDisk::Open(const std::shared_ptr<RecordingFile>& file, bool wait) {
  if (wait) {
    Lock lock(mutex_);
    changed_.wait(lock, [this] { return HasJobs(1 + kReservedJobs); });
  } else if (!MayOpen()) {
    return false;
  }
  Job job;
  job.kind = Kind::kOpen;
  job.file = file;
  Push(std::move(job));
  return true;
}

bool RecordingDisk::Write(Part part, const std::uint8_t* data, std::uint32_t length, bool last,
                          bool wait) {
  std::uint8_t* const buffer = TakeBuffer(last ? 0 : kReserved, wait);
  if (buffer == nullptr) {
    return false;
  }
  std::memcpy(buffer, data, length);
  Job job;
  job.kind = Kind::kWrite;
  job.part = part;
  job.length = length;
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
    const Lock lock(mutex_);
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
    const Lock lock(mutex_);
    tasks_.push_back(std::move(task));
    settle_ = true;
  }
  changed_.notify_all();
}

// --- Waiting for it -----------------------------------------------------------------------------

bool RecordingDisk::IsIdle() const {
  return count_ == 0 && busySince_ == 0 && !look_ && !settle_ && !again_;
}

bool RecordingDisk::Await(Lock& lock, int milliseconds, bool giveUp,
                          const std::function<bool()>& done) const {
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
    changed_.wait_for(lock, std::chrono::milliseconds(left));
  }
  return true;
}

bool RecordingDisk::WaitOpened(const RecordingFile& file, int milliseconds) const {
  Lock lock(mutex_);
  return Await(lock, milliseconds, false, [&] {
    return file.state.load(std::memory_order_acquire) != RecordingFile::State::kOpening;
  });
}

bool RecordingDisk::WaitIdle(int milliseconds, bool giveUp) const {
  Lock lock(mutex_);
  return Await(lock, milliseconds, giveUp, [this] { return ended_ || IsIdle(); });
}

bool RecordingDisk::WaitAll(int milliseconds, bool giveUp) {
  std::vector<std::shared_ptr<RecordingDisk>> disks;
  {
    const std::lock_guard lock(Disks().mutex);
    disks = Disks().disks;
  }
  const std::uint64_t begin = SteadyMilliseconds();
  return std::all_of(disks.begin(), disks.end(), [&](const auto& disk) {
    const auto passed = static_cast<int>(SteadyMilliseconds() - begin);
    return disk->WaitIdle(milliseconds < 0 ? -1 : std::max(milliseconds - passed, 0), giveUp) ||
           giveUp;  // the next one may answer
  });
}

void RecordingDisk::End() {
  Lock lock(mutex_);
  ending_ = true;
  settle_ = true;
  changed_.notify_all();
  Await(lock, kEndMilliseconds, true, [this] { return ended_; });
}

RecordingDisk::Counts RecordingDisk::GetCounts() const {
  const Lock lock(mutex_);
  Counts counts = counts_;
  counts.tasks = tasks_.size();
  return counts;
}

bool RecordingDisk::IsSettled() const {
  const Lock lock(mutex_);
  return count_ == 0 && busySince_ == 0 && !isOpen_ && unsettled_ == 0 && finished_.empty();
}

void RecordingDisk::RememberFinished() {
  const Lock lock(mutex_);
  rememberFinished_ = true;
}

std::vector<FinishedRecording> RecordingDisk::TakeFinished() {
  const Lock lock(mutex_);
  return std::exchange(finished_, {});
}

// --- The thread ---------------------------------------------------------------------------------

void RecordingDisk::Work() {
  PreferThisThread();
  std::chrono::milliseconds pause = kShortRetry;
  Lock lock(mutex_);
  for (;;) {
    if (count_ > 0) {
      Job job = std::move(jobs_[first_]);
      first_ = (first_ + 1) % kMostJobs;
      --count_;
      busySince_ = SteadyMilliseconds();
      lock.unlock();
      Do(job);
      job.file.reset();
      lock.lock();
      if (job.buffer != nullptr) {
        GiveBuffer(job.buffer);
      }
      settle_ = settle_ || job.kind != Kind::kWrite;
    } else if (look_ || settle_) {
      const bool look = std::exchange(look_, false);
      settle_ = false;
      busySince_ = SteadyMilliseconds();
      lock.unlock();
      if (look) {
        LookForFile();
      }
      const bool again = Settle();
      if (look) {
        ForgetSettled();
      }
      lock.lock();
      again_ = again;
      pause = again ? std::min(2 * pause, kLongRetry) : kShortRetry;
    } else if (ending_ && !again_) {
      break;
    } else if (again_) {
      if (!changed_.wait_for(lock, pause, [this] { return count_ > 0 || look_ || settle_; })) {
        settle_ = true;
      }
    } else {
      changed_.wait(lock);
    }
    isOpen_ = current_.IsOpen() || !current_.parts.empty();
    busySince_ = 0;
    changed_.notify_all();
  }
  ended_ = true;
  changed_.notify_all();
}

}  // namespace cms
