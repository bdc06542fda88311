#include "cms/runtime/base_thread.h"

#include <limits>
#include <utility>

#include "cms/runtime/internal/native_thread.h"

namespace CLFX {

CLFXBaseThread::CLFXBaseThread() = default;

CLFXBaseThread::~CLFXBaseThread() {
  EndThread();
  std::shared_ptr<cms::NativeThread> handle;
  {
    ScopeLock lock(lock_);
    handle.swap(handle_);
  }
  if (handle != nullptr && !handle->IsCaller()) {
    handle->WaitEnded(cms::Event::kForever);
  }
}

int CLFXBaseThread::StartThread() {
  ScopeLock lock(lock_);
  if (IsKeepWorking() || handle_ != nullptr) {
    return 1;
  }
  auto handle = cms::NativeThread::CreateSuspended(
      name_, [this](cms::NativeThread&) { return StaticThreadFunc(this); });
  if (handle == nullptr) {
    return 0;
  }
  handle_ = handle;
  threadId_.store(handle->Id(), std::memory_order_relaxed);
  keepWorking_.store(true, std::memory_order_release);
  handle->Resume();
  return 2;
}

std::uint32_t CLFXBaseThread::StaticThreadFunc(CLFXBaseThread* thread) {
  return thread->ThreadRoutine();
}

std::uint32_t CLFXBaseThread::WaitThread(std::uint32_t milliseconds) {
  const std::shared_ptr<cms::NativeThread> handle = Handle();
  if (handle == nullptr) {
    return 0;
  }
  int limit = cms::Event::kForever;
  if (milliseconds != kNoTimeLimit) {
    constexpr auto kLongestWait = static_cast<std::uint32_t>(std::numeric_limits<int>::max());
    limit = static_cast<int>(milliseconds < kLongestWait ? milliseconds : kLongestWait);
  }
  return handle->WaitEnded(limit) ? 0 : kTimeOut;
}

bool CLFXBaseThread::GetExitCode(std::uint32_t& code) {
  const std::shared_ptr<cms::NativeThread> handle = Handle();
  if (handle == nullptr || !handle->WaitEnded(0)) {
    return false;
  }
  code = handle->ExitCode();
  return true;
}

void CLFXBaseThread::CloseThread() {
  std::shared_ptr<cms::NativeThread> handle;
  ScopeLock lock(lock_);
  handle.swap(handle_);
}

void* CLFXBaseThread::GetHandle() {
  return Handle().get();
}

std::shared_ptr<cms::NativeThread> CLFXBaseThread::Handle() {
  ScopeLock lock(lock_);
  return handle_;
}

void CLFXBaseThread::SetThreadPriority(int) {}

void CLFXBaseThread::SetName(const char* name) {
  ScopeLock lock(lock_);
  name_ = name != nullptr ? name : "";
}

}  // namespace CLFX
