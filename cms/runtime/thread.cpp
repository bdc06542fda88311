#include "cms/runtime/thread.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "cms/runtime/internal/native_thread.h"

namespace {

constexpr int kPollMilliseconds = 10;
constexpr int kStopPolls = 1000;
constexpr int kDestructionMilliseconds = 3000;
constexpr int kLeavingMilliseconds = 1000;  // to return from finish()
constexpr std::chrono::milliseconds kSettlingDelay{100};

}  // namespace

Thread::Thread() = default;

Thread::Thread(Runnable& runnable) : runnable_(&runnable) {}

Thread::~Thread() {
  std::shared_ptr<cms::NativeThread> worker;
  {
    ScopeLock lock(lock_);
    worker.swap(worker_);
  }
  if (worker == nullptr) {
    return;
  }
  if (!worker->IsCaller()) {
    worker->WaitEnded(kDestructionMilliseconds);
    if (!worker->ClaimOwner()) {
      worker->WaitEnded(kDestructionMilliseconds);  // finish() has begun on this object
    }
  } else {
    worker->ClaimOwner();
  }
}

void Thread::SetName(const char* name) {
  ScopeLock lock(lock_);
  name_ = name != nullptr ? name : "";
}

void Thread::start_address(Runnable* runnable, Thread* thread, cms::NativeThread& native) {
  if (runnable != nullptr) {
    runnable->run();
    runnable->finish();
    return;
  }
  thread->run();
  if (native.ClaimOwner()) {
    thread->finish();
  }
}

void Thread::start() {
  if (StartUnlessRunning()) {
    std::this_thread::sleep_for(kSettlingDelay);
  }
}

void Thread::StartAtOnce() {
  StartUnlessRunning();
}

bool Thread::StartUnlessRunning() {
  ScopeLock lock(lock_);
  if (running_.load(std::memory_order_relaxed)) {
    return false;
  }
  auto worker = cms::NativeThread::CreateSuspended(
      name_, [this, runnable = runnable_](cms::NativeThread& native) {
        start_address(runnable, this, native);
        return 0u;
      });
  if (worker == nullptr) {
    throw std::runtime_error("thread creation failed");
  }
  worker_ = worker;
  hasHandle_ = true;
  threadId_.store(worker->Id(), std::memory_order_relaxed);
  running_.store(true, std::memory_order_release);
  worker->Resume();
  return true;
}

void Thread::run() {
  if (runnable_ != nullptr) {
    runnable_->run();
  }
}

// Under the lock, so that a stop request made meanwhile is either seen by this run of the thread or
// not made at all, and never left over for the next start.
void Thread::finish() {
  ScopeLock lock(lock_);
  running_.store(false, std::memory_order_release);
  hasHandle_ = false;
  stopRequested_.store(false, std::memory_order_release);
}

void Thread::notifyStop() {
  ScopeLock lock(lock_);
  if (running_.load(std::memory_order_relaxed) && hasHandle_) {
    stopRequested_.store(true, std::memory_order_release);
  }
}

void Thread::waitStop() {
  const std::shared_ptr<cms::NativeThread> worker = Worker();
  if (worker == nullptr || worker->IsCaller()) {
    return;
  }
  for (int poll = 0; poll < kStopPolls && IsStopRequested(); ++poll) {
    if (worker->WaitEnded(kPollMilliseconds)) {
      return;
    }
  }
  if (!IsRunning()) {
    worker->WaitEnded(kLeavingMilliseconds);
  }
}

void Thread::stop() {
  Thread::notifyStop();
  const std::shared_ptr<cms::NativeThread> worker = Worker();
  if (worker == nullptr || worker->IsCaller()) {
    return;
  }
  for (int poll = 0; poll < kStopPolls && IsRunning() && IsStopRequested(); ++poll) {
    if (worker->WaitEnded(kPollMilliseconds)) {
      return;
    }
  }
  if (!IsRunning()) {
    worker->WaitEnded(kLeavingMilliseconds);
  }
}

std::shared_ptr<cms::NativeThread> Thread::Worker() {
  ScopeLock lock(lock_);
  return worker_;
}
