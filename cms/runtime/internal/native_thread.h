// NativeThread, the platform's thread behind Thread and CLFXBaseThread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "cms/runtime/event.h"

namespace cms {

// A thread that is created behind a gate, tells when its body has ended, and is joined or detached
// exactly once. Its owner and the thread itself each hold a reference, so that neither ever touches
// a freed one. Members may be called from any thread.
class NativeThread {
 public:
  using Body = std::function<std::uint32_t(NativeThread&)>;  // returns the exit code

  // The thread is born and has an id, but its body runs only after Resume. nullptr when the
  // platform refuses another thread. The name shows in top -H, cut at 15 characters.
  static std::shared_ptr<NativeThread> CreateSuspended(const std::string& name, Body body);
  // Joins a thread whose body has ended, detaches any other.
  ~NativeThread();

  void Resume() { gate_.Set(); }
  std::uint32_t Id() const { return id_; }
  bool IsCaller() const;
  std::uint32_t ExitCode() const { return exitCode_; }  // once ended

  // Waits until the thread has ended (negative: without limit) and sees it off.
  bool WaitEnded(int milliseconds);

  // The thread's last call into its owner and the owner's destruction exclude each other: whoever
  // comes first gets true, the other false.
  bool ClaimOwner() { return !ownerClaimed_.exchange(true, std::memory_order_acq_rel); }

 private:
  NativeThread() = default;

  Event born_;
  Event gate_;
  Event ended_;
  std::atomic<bool> ownerClaimed_{false};
  std::atomic<bool> released_{false};  // joined or detached
  std::uint32_t id_ = 0;
  std::uint32_t exitCode_ = 0;
  std::thread thread_;
};

}  // namespace cms
