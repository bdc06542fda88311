// CLFX::CLFXBaseThread, the worker threads of recording and file moving.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace cms {
class NativeThread;
}

namespace CLFX {

// A worker thread whose routine loops while IsKeepWorking(). The owner starts, waits for, closes
// and destroys it. Every subclass calls EndThread and waits (WaitThread) in its own destructor:
// when this class's destructor waits, the subclass that the routine works on is gone already.
class CMS_API CLFXBaseThread {
 public:
  static constexpr std::uint32_t kTimeOut = 258;              // WaitThread: still running
  static constexpr std::uint32_t kNoTimeLimit = 0xFFFFFFFFu;  // WaitThread: however long it takes

  CLFXBaseThread();
  CLFXBaseThread(const CLFXBaseThread&) = delete;
  CLFXBaseThread& operator=(const CLFXBaseThread&) = delete;

  // The work, on the worker thread; the result is the thread's exit code.
  virtual std::uint32_t ThreadRoutine() = 0;

  // Clears the keep-working flag and waits for the thread without time limit.
  virtual ~CLFXBaseThread();

  // 2 when the thread was started, 1 when it was started before (and not closed since), 0 when the
  // system refused it.
  int StartThread();

  // Waits until the thread has ended: 0 when it has or there is none, kTimeOut otherwise.
  std::uint32_t WaitThread(std::uint32_t milliseconds);

  // Takes what ThreadRoutine returned. False while it runs, and when there is no handle.
  bool GetExitCode(std::uint32_t& code);

  // Gives the handle up. A thread that still runs goes on.
  void CloseThread();

  bool IsKeepWorking() const { return keepWorking_.load(std::memory_order_acquire); }

  // An opaque handle of the thread, nullptr when there is none.
  void* GetHandle();
  std::uint32_t ThreadId() const { return threadId_.load(std::memory_order_relaxed); }

  // Does nothing: priorities are never changed.
  void SetThreadPriority(int priority);

  // The thread's name in top -H, at most 15 characters; takes effect at the next start.
  void SetName(const char* name);

 protected:
  void EndThread() { keepWorking_.store(false, std::memory_order_release); }

 private:
  static std::uint32_t StaticThreadFunc(CLFXBaseThread* thread);
  std::shared_ptr<cms::NativeThread> Handle();

  CMSCritical lock_;
  std::shared_ptr<cms::NativeThread> handle_ CMS_GUARDED_BY(lock_);
  std::atomic<std::uint32_t> threadId_{0};
  std::atomic<bool> keepWorking_{false};
  std::string name_ CMS_GUARDED_BY(lock_);
};

}  // namespace CLFX
