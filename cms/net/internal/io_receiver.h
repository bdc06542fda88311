// EachClientRecvManager, the receive thread of a group.
#pragma once

#include <chrono>

#include "cms/net/internal/io_thread.h"

// Waits for readability and calls the receive steps, in the order of the list. After a pass that
// moved data the next wait begins no earlier than the shortest rest of those that had some after
// that pass began to wait. The first data after a rest, and everything while a burst lasts, is
// taken at once.
class EachClientRecvManager final : public EachClientSRManager {
 public:
  explicit EachClientRecvManager(int group);
  ~EachClientRecvManager() override;

  void run() override;
  CMSCritical& CallbackLock() { return lock_; }

  // Whether a receive step of that client is running. The client may be gone.
  bool IsInStepOf(const cms::SocketEndpoint* client) const { return step_.IsOf(client); }

 private:
  bool IsWaitedOn(const Entry& entry) override;
  void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) override;

  struct PassResult {
    bool moved = false;
    bool burst = false;
    std::chrono::microseconds rest = cms::SocketEndpoint::kLongRest;
  };
  PassResult Dispatch() CMS_REQUIRES(lock_);
  void PauseUntil(std::chrono::steady_clock::time_point time);

  StepInProgress<cms::SocketEndpoint> step_;
};
