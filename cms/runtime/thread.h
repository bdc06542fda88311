// Runnable and Thread, the worker threads of the socket I/O.
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

// What a Thread runs.
class CMS_API Runnable {
 public:
  virtual void run() = 0;     // on the worker thread
  virtual void finish() = 0;  // on the worker thread, after run

 protected:
  ~Runnable() = default;
};

// A worker thread: either a subclass overrides run with a loop that leaves as soon as
// IsStopRequested(), or the thread is given a Runnable, whose run and finish it then calls instead
// of its own. Nothing ever ends the thread by force. The waits end as soon as the worker has ended.
//
// start, stop and destruction belong to the owner; notifyStop and the questions to any thread. The
// worker may call stop or waitStop on its own thread, which then do not wait. Every subclass calls
// stop() in its own destructor: when this class's destructor runs, the subclass that run() works on
// is gone already.
class CMS_API Thread : public Runnable {
 public:
  Thread();
  explicit Thread(Runnable& runnable);  // not owned; outlives the worker
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  void run() override;

  // Marks the thread as ended and gives its handle up. With a Runnable nobody calls it unless the
  // Runnable does, and the thread counts as running for good.
  void finish() override;

  // Asks a running thread to end; returns at once.
  virtual void notifyStop();

  // After notifyStop: waits, at most 10 seconds, until the thread has ended. Nothing when nobody
  // has asked it to end.
  virtual void waitStop();

  // notifyStop and waitStop in one. A thread that has not ended within 10 seconds runs on.
  virtual void stop();

  // Starts the thread unless it runs, and takes 100 ms to let it settle. Throws std::runtime_error
  // "thread creation failed".
  virtual void start();

  // The same without the 100 ms, for owners whose thread is ready whenever it comes to run.
  void StartAtOnce();

  // Waits at most 3 seconds for a running thread to end by itself. A thread that is then still in
  // run() goes on without its object, but its finish is not called any more.
  virtual ~Thread();

  // The thread's name in top -H, at most 15 characters; takes effect at the next start.
  void SetName(const char* name);

  bool IsRunning() const { return running_.load(std::memory_order_acquire); }
  bool IsStopRequested() const { return stopRequested_.load(std::memory_order_acquire); }
  std::uint32_t ThreadId() const { return threadId_.load(std::memory_order_relaxed); }

 private:
  static void start_address(Runnable* runnable, Thread* thread, cms::NativeThread& native);
  std::shared_ptr<cms::NativeThread> Worker();
  bool StartUnlessRunning();

  CMSCritical lock_;
  // The native thread outlives its handle, so that the owner can wait for finish() to return.
  std::shared_ptr<cms::NativeThread> worker_ CMS_GUARDED_BY(lock_);
  bool hasHandle_ CMS_GUARDED_BY(lock_) = false;
  std::atomic<bool> running_{false};        // written under lock_
  std::atomic<bool> stopRequested_{false};  // written under lock_
  Runnable* const runnable_ = nullptr;
  std::atomic<std::uint32_t> threadId_{0};
  std::string name_ CMS_GUARDED_BY(lock_);
};
