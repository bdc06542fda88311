#include "cms/net/internal/io_sender.h"

#include <algorithm>
#include <utility>

EachClientSendManager::EachClientSendManager(int group, EachClientRecvManager& receiver)
    : EachClientSRManager("cms-send-", group, EPOLLOUT), receiver_(receiver) {}

EachClientSendManager::~EachClientSendManager() {
  EachClientSRManager::stop();
}

void EachClientSendManager::RegisterClient(cms::RTCPStep* step) {
  const Visitor visitor(*this);
  ScopeLock lock(lock_);
  if (std::ranges::find(rtcpSteps_, step) == rtcpSteps_.end()) {
    rtcpSteps_.push_back(step);
    signal_->Wake();
  }
}

void EachClientSendManager::UnRegisterClient(cms::RTCPStep* step) {
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
      Dispatch();
      ClearReady();
      UpdateSet();
    }
    CallRtcpSteps();
  }
}

void EachClientSendManager::Dispatch() {
  using Sent = cms::SocketEndpoint::Sent;
  const auto canSend = [this](const Entry& entry) CMS_NO_THREAD_SAFETY_ANALYSIS {
    return IsReady(entry) || (!entry.blocked && entry.endpoint->HasPending());
  };
  for (Entry* const entry : Snapshot(canSend)) {
    if (IsStopRequested()) {
      return;
    }
    // Send steps call nobody, so the entry stays what it is meanwhile.
    const Sent sent = entry->endpoint->SendStep();
    if (sent == Sent::kFailed) {
      Remove(entry->endpoint);
      continue;
    }
    moreToSend_ = moreToSend_ || sent == Sent::kMore;
    if (entry->blocked != (sent == Sent::kBlocked)) {
      entry->blocked = sent == Sent::kBlocked;
      signal_->MarkChanged();
    }
  }
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
  for (cms::RTCPStep* step : rtcpSnapshot_) {
    if (IsStopRequested()) {
      return;
    }
    if (std::ranges::find(rtcpSteps_, step) == rtcpSteps_.end()) {
      continue;  // unregistered by a step before
    }
    const StepInProgress<cms::RTCPStep>::Scope running(step_, step);
    if (step->RTCPProcessNB() < 0) {
      std::erase(rtcpSteps_, step);
    }
  }
}
