#include "cms/net/internal/io_group.h"

#include <stdexcept>

#include "cms/runtime/internal/named_thread.h"

namespace {

bool TryStart(Thread& thread, bool settles) {
  try {
    if (settles) {
      thread.start();
    } else {
      thread.StartAtOnce();
    }
    return true;
  } catch (const std::runtime_error&) {  // there is no thread to be had
    return false;
  }
}

}  // namespace

EachClientManager::EachClientManager(int group)
    : receiver_(std::make_unique<EachClientRecvManager>(group)),
      sender_(std::make_unique<EachClientSendManager>(group, *receiver_)) {}

void EachClientManager::RegisterClient(const cms::IoClient& client) {
  if (auto* const* const endpoint = std::get_if<cms::SocketEndpoint*>(&client)) {
    receiver_->RegisterClient(*endpoint);
    sender_->RegisterClient(*endpoint);
  } else {
    sender_->RegisterClient(std::get<cms::RTCPStep*>(client));
  }
}

void EachClientManager::UnRegisterClient(const cms::IoClient& client) {
  if (auto* const* const endpoint = std::get_if<cms::SocketEndpoint*>(&client)) {
    receiver_->UnRegisterClient(*endpoint);
    sender_->UnRegisterClient(*endpoint);
  } else {
    sender_->UnRegisterClient(std::get<cms::RTCPStep*>(client));
  }
}

bool EachClientManager::IsInStepOf(const cms::IoClient& client) const {
  auto* const* const endpoint = std::get_if<cms::SocketEndpoint*>(&client);
  return endpoint != nullptr ? receiver_->IsInStepOf(*endpoint)
                             : sender_->IsInStepOf(std::get<cms::RTCPStep*>(client));
}

void EachClientManager::WaitForSteps() {
  receiver_->WaitForStep();
  sender_->WaitForStep();
}

EachClientManager::State EachClientManager::start(bool settles) {
  if (CurrentState() == State::kStarted) {
    return State::kStarted;
  }
  ScopeLock lock(startLock_);
  if (CurrentState() != State::kNew || !receiver_->IsUsable() || !sender_->IsUsable()) {
    return CurrentState();
  }
  bool receiving = false;
  bool sending = false;
  if (settles) {  // side by side: each start lasts 100 ms
    cms::NamedThread helper;
    sending = helper.Start("cms-group", [&] { receiving = TryStart(*receiver_, true); }) &&
              TryStart(*sender_, true);
    helper.Join();
  } else {
    receiving = TryStart(*receiver_, false);
    sending = receiving && TryStart(*sender_, false);
  }
  if (!sending || !receiving) {
    sender_->stop();
    receiver_->stop();
    return State::kNew;
  }
  state_.store(State::kStarted, std::memory_order_release);
  return State::kStarted;
}

void EachClientManager::stop() {
  {
    // Not held while waiting: a callback may be about to ask whether the threads run.
    ScopeLock lock(startLock_);
    state_.store(State::kStopped, std::memory_order_release);
  }
  sender_->stop();
  receiver_->stop();
}
