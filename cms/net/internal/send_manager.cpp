#include <algorithm>

#include "cms/net/internal/client_managers.h"

namespace {

// Steps of one client in a pass, before the others have their turn. A TCP client's is one call into
// the system; a UDP client's may last 31 ms by itself.
constexpr int kTcpStepsPerPass = 64;
constexpr int kUdpStepsPerPass = 1;

}  // namespace

EachClientSendManager::EachClientSendManager(int group, EachClientRecvManager& receiver)
    : EachClientSRManager("cms-send-", group, EPOLLOUT), receiver_(receiver) {}

EachClientSendManager::~EachClientSendManager() {
  EachClientSRManager::stop();
}

void EachClientSendManager::RegisterClient(RTCPStep* step) {
  const Visitor visitor(*this);
  ScopeLock lock(lock_);
  if (std::ranges::find(rtcpSteps_, step) == rtcpSteps_.end()) {
    rtcpSteps_.push_back(step);
    signal_->Wake();
  }
}

void EachClientSendManager::UnRegisterClient(RTCPStep* step) {
  const Visitor visitor(*this);
  ScopeLock lock(lock_);
  std::erase(rtcpSteps_, step);
}

bool EachClientSendManager::IsWaitedOn(const Entry& entry) {
  return entry.blocked;
}

void EachClientSendManager::SetSignal(cms::SocketEndpoint& endpoint,
                                      std::shared_ptr<cms::IoSignal> signal) {
  endpoint.SetSendSignal(std::move(signal));
}

void EachClientSendManager::run() {
  while (!IsStopRequested()) {
    LetVisitorsIn();
    const int count = Wait(moreToSend_ ? 0 : MillisecondsToRtcp());
    moreToSend_ = false;
    {
      ScopeLock lock(lock_);
      MarkReady(count);
      UpdateSet();
      Dispatch(tcpClients_);
      Dispatch(udpClients_);
      ClearReady();
      UpdateSet();
    }
    CallRtcpSteps();
  }
}

void EachClientSendManager::Dispatch(List& list) {
  const auto can_send = [this](const Entry& entry) CMS_NO_THREAD_SAFETY_ANALYSIS {
    return IsReady(entry) || (!entry.blocked && HasPending(entry));
  };
  for (const std::shared_ptr<Entry>& entry : Snapshot(list, can_send)) {
    if (IsStopRequested()) {
      return;
    }
    // Send steps call nobody, so the entry stays what it is meanwhile.
    bool would_block = false;
    int result = 0;
    const int steps = entry->tcp != nullptr ? kTcpStepsPerPass : kUdpStepsPerPass;
    for (int step = 0; step < steps && result >= 0 && !would_block; ++step) {
      if (!HasPending(*entry)) {
        break;
      }
      result = StepOnce(*entry);
      would_block =
          entry->tcp != nullptr ? entry->tcp->SendWouldBlock() : entry->udp->SendWouldBlock();
    }
    if (result < 0) {
      Remove(list, entry->endpoint);
      continue;
    }
    const bool pending = HasPending(*entry);
    moreToSend_ = moreToSend_ || (pending && !would_block);
    if (entry->blocked != (pending && would_block)) {
      entry->blocked = pending && would_block;
      signal_->MarkChanged();
    }
  }
}

int EachClientSendManager::StepOnce(const Entry& entry) {
  return entry.tcp != nullptr ? entry.tcp->TCPClientSend() : entry.udp->UDPClientSend();
}

bool EachClientSendManager::HasPending(const Entry& entry) {
  return entry.tcp != nullptr ? entry.tcp->HasPendingSend() : entry.udp->HasPendingSend();
}

int EachClientSendManager::MillisecondsToRtcp() {
  ScopeLock lock(lock_);
  if (rtcpSteps_.empty()) {
    return -1;
  }
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(nextRtcp_ - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kRtcpInterval).count());
}

void EachClientSendManager::CallRtcpSteps() {
  const auto now = std::chrono::steady_clock::now();
  if (now < nextRtcp_) {
    return;
  }
  {
    ScopeLock lock(lock_);
    if (rtcpSteps_.empty()) {
      return;
    }
  }
  nextRtcp_ = now + kRtcpInterval;
  // The receive thread's lock first, as everywhere: a step may unregister clients, which takes
  // both.
  const Visitor visitor(receiver_);
  ScopeLock callbacks(receiver_.CallbackLock());
  ScopeLock lock(lock_);
  rtcpSnapshot_ = rtcpSteps_;
  for (RTCPStep* step : rtcpSnapshot_) {
    if (IsStopRequested()) {
      return;
    }
    if (std::ranges::find(rtcpSteps_, step) == rtcpSteps_.end()) {
      continue;  // unregistered by a step before
    }
    const Step running(*this, step);
    if (step->RTCPProcessNB() < 0) {
      std::erase(rtcpSteps_, step);
    }
  }
}
