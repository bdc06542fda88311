#include <poll.h>

#include <ctime>

#include "cms/net/internal/client_managers.h"

EachClientRecvManager::EachClientRecvManager(int group)
    : EachClientSRManager("cms-recv-", group, EPOLLIN) {}

EachClientRecvManager::~EachClientRecvManager() {
  EachClientSRManager::stop();
}

bool EachClientRecvManager::IsWaitedOn(const Entry& entry) {
  return entry.endpoint->wantsReceive_.load(std::memory_order_relaxed);
}

void EachClientRecvManager::SetSignal(cms::SocketEndpoint& endpoint,
                                      std::shared_ptr<cms::IoSignal> signal) {
  endpoint.SetReceiveSignal(std::move(signal));
}

void EachClientRecvManager::run() {
  while (!IsStopRequested()) {
    LetVisitorsIn();
    const auto start = std::chrono::steady_clock::now();
    const int count = Wait(-1);
    PassResult result;
    {
      ScopeLock lock(lock_);
      MarkReady(count);
      UpdateSet();
      Dispatch(tcpClients_, result);
      Dispatch(udpClients_, result);
      ClearReady();
      UpdateSet();
    }
    if (result.moved && !result.burst) {
      PauseUntil(start + kBatchInterval);
    }
  }
}

void EachClientRecvManager::Dispatch(List& list, PassResult& result) {
  const auto ready = [this](const Entry& entry)
                         CMS_NO_THREAD_SAFETY_ANALYSIS { return IsReady(entry); };
  for (const std::shared_ptr<Entry>& entry : Snapshot(list, ready)) {
    if (IsStopRequested()) {
      return;
    }
    if (entry->endpoint == nullptr) {
      continue;  // unregistered by a step before
    }
    const Step step(*this, entry->Client());
    const int taken =
        entry->tcp != nullptr ? entry->tcp->TCPClientRecv() : entry->udp->UDPClientRecv();
    result.moved = result.moved || taken > 0;
    if (entry->endpoint == nullptr) {
      continue;  // unregistered by its own step; the client may be gone
    }
    result.burst = result.burst || entry->endpoint->stepWasBurst_;
    if (taken < 0) {
      Remove(list, entry->endpoint);
    } else if (!IsWaitedOn(*entry)) {
      signal_->MarkChanged();
    }
  }
}

// Ends early when the thread is signalled.
void EachClientRecvManager::PauseUntil(std::chrono::steady_clock::time_point time) {
  const auto left =
      std::chrono::duration_cast<std::chrono::nanoseconds>(time - std::chrono::steady_clock::now());
  if (left.count() <= 0) {
    return;
  }
  const timespec limit{0, left.count()};  // always below a second
  pollfd signal{signal_->Descriptor(), POLLIN, 0};
  ppoll(&signal, 1, &limit, nullptr);
}
