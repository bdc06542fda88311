#include "cms/recording/control_write_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "cms/recording/internal/write_out.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/internal/named_thread.h"

namespace {

// A producer that found all slots taken is woken when some are free again: waking it for each one
// would cost more than the writes on a fast disk. On a slow disk it looks by itself.
constexpr std::uint32_t kRoomWorthWaking = 16;
constexpr int kLookAgainMilliseconds = 5;

}  // namespace

ControlWriteFile* ControlWriteFile::GetInstance() {
  // Never destroyed: threads may still offer buffers, in vain, while the process ends.
  static ControlWriteFile* const instance = [] {
    auto* queue = new ControlWriteFile;
    std::atexit([] { GetInstance()->stop(); });
    return queue;
  }();
  return instance;
}

ControlWriteFile::ControlWriteFile(cms::FileIo* io)
    : io_(io),
      memory_(new (std::nothrow) std::uint8_t[std::size_t{kSlots} * kSlotSize]),
      thread_(std::make_unique<cms::NamedThread>()) {
  if (!memory_) {
    return;
  }
  failedHandles_.reserve(kSlots);
  {
    ScopeLock lock(buffersLock_);
    freeBuffers_.reserve(kSlots);
    for (std::size_t i = kSlots; i > 0; --i) {
      freeBuffers_.push_back(memory_.get() + (i - 1) * kSlotSize);
    }
  }
  ScopeLock lock(threadLock_);
  running_ = true;
  if (!thread_->Start("cms-write-queue", [this] { WriteQueueThrd(); })) {
    running_ = false;  // nothing is taken then
  }
}

ControlWriteFile::~ControlWriteFile() {
  stop();
}

bool ControlWriteFile::AddToQueue(int handle, const void* data, std::uint32_t length,
                                  bool closeAfter, std::shared_ptr<cms::WriteStatus> status) {
  if (handle < 0 || length > kSlotSize) {
    return false;
  }
  Slot* slot = nullptr;
  {
    ScopeLock lock(fillLock_);
    if (!running_) {
      return false;
    }
    while (queued_ >= kSlots) {
      room_.Reset();
      if (queued_ >= kSlots) {
        room_.Wait(kLookAgainMilliseconds);
      }
    }
    fill_ = (fill_ + 1) % kSlots;
    slot = &slots_[fill_];
    slot->filled.Reset();
    slot->buffer = length > 0 ? TakeBuffer() : nullptr;
    ++claimed_;
    ++queued_;
  }
  slot->handle = handle;
  slot->closeAfter = closeAfter;
  slot->length = length;
  slot->status = std::move(status);
  if (length > 0) {
    std::memcpy(slot->buffer, data, length);
  }
  slot->filled.Set();
  work_.Set();
  return true;
}

void ControlWriteFile::stop() {
  {
    ScopeLock lock(fillLock_);  // whoever waits for room has got it before
    running_ = false;
  }
  work_.Set();
  ScopeLock lock(threadLock_);
  thread_->Join();
}

bool ControlWriteFile::WaitWritten(int milliseconds) {
  const std::uint64_t target = claimed_;
  const std::uint64_t begin = cms::TickMilliseconds();
  ScopeLock lock(waiterLock_);
  for (;;) {
    progress_.Reset();
    if (done_ >= target) {
      return true;
    }
    int left = cms::Event::kForever;
    if (milliseconds >= 0) {
      const std::uint64_t passed = cms::TickMilliseconds() - begin;
      if (passed >= static_cast<std::uint64_t>(milliseconds)) {
        return false;
      }
      left = milliseconds - static_cast<int>(passed);
    }
    progress_.Wait(left);
  }
}

void ControlWriteFile::WriteQueueThrd() {
  cms::PreferThisThread();
  WriteQueueFn();
}

void ControlWriteFile::WriteQueueFn() {
  for (;;) {
    if (queued_ == 0) {
      if (!running_) {
        return;
      }
      work_.Reset();
      if (queued_ == 0 && running_) {
        work_.Wait();
      }
      continue;
    }
    drain_ = (drain_ + 1) % kSlots;
    Slot& slot = slots_[drain_];
    slot.filled.Wait();
    WriteSlot(slot);
    if (slot.closeAfter) {
      CloseSlot(slot);
    }
    slot.status.reset();
    if (slot.buffer != nullptr) {
      GiveBuffer(std::exchange(slot.buffer, nullptr));
    }
    // From here on the slot may be somebody else's.
    if (--queued_ <= kSlots - kRoomWorthWaking) {
      room_.Set();
    }
    ++done_;
    progress_.Set();
  }
}

void ControlWriteFile::WriteSlot(Slot& slot) {
  if (slot.length == 0) {
    return;
  }
  const auto known = std::find(failedHandles_.begin(), failedHandles_.end(), slot.handle);
  std::uint32_t written = 0;
  if (known == failedHandles_.end()) {
    const int error = cms::WriteOut(Io(), slot.handle, slot.buffer, slot.length, written);
    if (error != 0) {
      failedHandles_.push_back(slot.handle);
      int none = 0;
      if (slot.status) {
        slot.status->error.compare_exchange_strong(none, error);
      }
    }
  }
  const std::uint32_t lost = slot.length - written;
  lostBytes_ += lost;
  if (slot.status) {
    slot.status->writtenBytes += written;
    slot.status->lostBytes += lost;
  }
}

void ControlWriteFile::CloseSlot(Slot& slot) {
  std::erase(failedHandles_, slot.handle);
  const int error = Io().Close(slot.handle) == 0 ? 0 : errno;
  if (slot.status) {
    int none = 0;
    if (error != 0) {  // a network file tells only now that it could not keep what it took
      slot.status->error.compare_exchange_strong(none, error);
    }
    slot.status->closed.store(true, std::memory_order_release);
  }
}

std::uint8_t* ControlWriteFile::TakeBuffer() {
  ScopeLock lock(buffersLock_);
  std::uint8_t* buffer = freeBuffers_.back();  // there are as many as slots
  freeBuffers_.pop_back();
  return buffer;
}

void ControlWriteFile::GiveBuffer(std::uint8_t* buffer) {
  ScopeLock lock(buffersLock_);
  freeBuffers_.push_back(buffer);
}
