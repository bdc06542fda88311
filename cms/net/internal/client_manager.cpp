#include <future>
#include <memory>
#include <stdexcept>

#include "cms/net/internal/client_managers.h"

EachClientManager::EachClientManager(int group)
    : receiver_(std::make_unique<EachClientRecvManager>(group)),
      sender_(std::make_unique<EachClientSendManager>(group, *receiver_)) {}

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
  try {
    auto receiving = std::async(std::launch::async, [this] { receiver_->start(); });
    sender_->start();
    receiving.get();
  } catch (const std::runtime_error&) {  // std::system_error included
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
