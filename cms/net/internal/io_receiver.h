// EachClientRecvManager, the receive thread of a group.
#pragma once

#include <chrono>

#include "cms/net/internal/io_thread.h"

// Waits for readability and calls the receive steps, in the order of the list.
class EachClientRecvManager final : public EachClientSRManager {
 public:
  // After a pass that moved data the next wait begins no earlier than this long after that pass
  // began to wait. Packets of many cameras trickle in one by one; taking them in batches saves most
  // of the waits and wake-ups, and adds little to a picture interval of 33 ms. The first data after
  // a rest, and everything while a burst lasts, is taken at once. Datagrams rest for less: what
  // their socket has no room for is lost, where a connection holds the camera back.
  static constexpr std::chrono::microseconds kDatagramInterval{2000};
  static constexpr std::chrono::microseconds kStreamInterval{5000};

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
    bool datagrams = false;
    bool burst = false;
  };
  PassResult Dispatch() CMS_REQUIRES(lock_);
  void PauseUntil(std::chrono::steady_clock::time_point time);

  StepInProgress<cms::SocketEndpoint> step_;
};
