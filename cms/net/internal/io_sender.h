// EachClientSendManager, the send thread of a group.
#pragma once

#include <chrono>
#include <vector>

#include "cms/net/internal/io_receiver.h"
#include "cms/net/internal/io_thread.h"
#include "cms/net/rtcp_step.h"

// Calls the send steps of the clients that have something to send, waiting for writability only
// while the system's buffers are full, and the RTCP steps.
class EachClientSendManager final : public EachClientSRManager {
 public:
  // How often the RTCP steps are called. They answer what arrived and send a report every two
  // seconds, for which 50 ms are close enough.
  static constexpr std::chrono::milliseconds kRtcpInterval{50};

  // The receive manager of the pair: RTCP steps run under its lock too.
  EachClientSendManager(int group, EachClientRecvManager& receiver);
  ~EachClientSendManager() override;

  using EachClientSRManager::RegisterClient;
  using EachClientSRManager::UnRegisterClient;
  void RegisterClient(cms::RTCPStep* step);
  void UnRegisterClient(cms::RTCPStep* step);

  void run() override;

  // Whether that RTCP step is running. Its object may be gone.
  bool IsInStepOf(const cms::RTCPStep* step) const { return step_.IsOf(step); }

 private:
  bool IsWaitedOn(const Entry& entry) override;
  void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) override;

  void Dispatch() CMS_REQUIRES(lock_);
  void CallRtcpSteps();
  int MillisecondsToRtcp();

  EachClientRecvManager& receiver_;
  StepInProgress<cms::RTCPStep> step_;
  std::vector<cms::RTCPStep*> rtcpSteps_ CMS_GUARDED_BY(lock_);
  std::vector<cms::RTCPStep*> rtcpSnapshot_ CMS_GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point nextRtcp_{};  // this thread's
  bool moreToSend_ = false;                           // this thread's
};
