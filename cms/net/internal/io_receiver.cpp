#include "cms/net/internal/io_receiver.h"

#include <poll.h>

#include <algorithm>
#include <ctime>
#include <utility>

EachClientRecvManager::EachClientRecvManager(int group)
    : EachClientSRManager("cms-recv-", group, EPOLLIN) {}

EachClientRecvManager::~EachClientRecvManager() {
  EachClientSRManager::stop();
}

bool EachClientRecvManager::IsWaitedOn(const Entry& entry) {
  return entry.endpoint->WantsReceive();
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
      result = Dispatch();
      ClearReady();
      UpdateSet();
    }
    if (result.moved && !result.burst) {
      PauseUntil(start + result.rest);
    }
  }
}

EachClientRecvManager::PassResult EachClientRecvManager::Dispatch() {
  PassResult result;
  const auto ready = [this](const Entry& entry)
                         CMS_NO_THREAD_SAFETY_ANALYSIS { return IsReady(entry); };
  for (Entry* const entry : Snapshot(ready)) {
    if (IsStopRequested()) {
      break;
    }
    if (!IsReady(*entry)) {
      continue;  // unregistered by a step before, or given another socket
    }
    const StepInProgress<cms::SocketEndpoint>::Scope running(step_, entry->endpoint);
    const auto rest = entry->endpoint->Rest();
    const cms::SocketEndpoint::Received taken = entry->endpoint->ReceiveStep();
    result.rest = std::min(result.rest, rest);
    result.moved = result.moved || taken.bytes > 0;
    if (entry->endpoint == nullptr) {
      continue;  // unregistered by its own step; the client may be gone
    }
    result.burst = result.burst || taken.burst;
    if (taken.bytes < 0) {
      Remove(entry->endpoint);
    } else if (!IsWaitedOn(*entry)) {
      signal_->MarkChanged();
    }
  }
  return result;
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
