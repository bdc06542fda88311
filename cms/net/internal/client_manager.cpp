#include <memory>
#include <stdexcept>

#include "cms/net/internal/client_managers.h"
#include "cms/runtime/internal/named_thread.h"

EachClientManager::EachClientManager(int group)
    : receiver_(std::make_unique<EachClientRecvManager>(group)),
      sender_(std::make_unique<EachClientSendManager>(group, *receiver_)) {}

namespace {

bool HasStarted(Thread& thread) {
  try {
    thread.start();
    return true;
  } catch (const std::runtime_error&) {  // there is no thread to be had
    return false;
  }
}

}  // namespace

template <class Client>
void EachClientManager::RegisterBoth(Client* client) {
  receiver_->RegisterClient(client);
  sender_->RegisterClient(client);
}

template <class Client>
void EachClientManager::UnRegisterBoth(Client* client) {
  receiver_->UnRegisterClient(client);
  sender_->UnRegisterClient(client);
}

void EachClientManager::RegisterClient(TCPClientBase* client) {
  RegisterBoth(client);
}
void EachClientManager::RegisterClient(UDPClientBase* client) {
  RegisterBoth(client);
}
void EachClientManager::RegisterClient(RTCPStep* step) {
  sender_->RegisterClient(step);
}
void EachClientManager::UnRegisterClient(TCPClientBase* client) {
  UnRegisterBoth(client);
}
void EachClientManager::UnRegisterClient(UDPClientBase* client) {
  UnRegisterBoth(client);
}
void EachClientManager::UnRegisterClient(RTCPStep* step) {
  sender_->UnRegisterClient(step);
}

bool EachClientManager::IsInStepOf(const void* client) const {
  return receiver_->IsInStepOf(client) || sender_->IsInStepOf(client);
}

void EachClientManager::WaitForSteps() {
  receiver_->WaitForStep();
  sender_->WaitForStep();
}

EachClientManager::State EachClientManager::start() {
  if (CurrentState() == State::kStarted) {
    return State::kStarted;
  }
  ScopeLock lock(startLock_);
  if (CurrentState() != State::kNew || !receiver_->IsUsable() || !sender_->IsUsable()) {
    return CurrentState();
  }
  // Side by side: each start lasts 100 ms, and a camera's opening waits for both.
  bool receiving = false;
  cms::NamedThread helper;
  const bool sending = helper.Start("cms-group", [&] { receiving = HasStarted(*receiver_); }) &&
                       HasStarted(*sender_);
  helper.Join();
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
