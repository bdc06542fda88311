#include <future>
#include <memory>
#include <stdexcept>

#include "cms/net/internal/client_managers.h"

namespace {

// A thread that could not be stopped still runs in its manager, which then has to stay.
template <class Manager>
bool KeepIfRunning(std::unique_ptr<Manager>& manager) {
  if (!manager->IsRunning()) {
    return false;
  }
  [[maybe_unused]] const Manager* const kept = manager.release();
  return true;
}

}  // namespace

EachClientManager::EachClientManager(int group)
    : receiver_(std::make_unique<EachClientRecvManager>(group)),
      sender_(std::make_unique<EachClientSendManager>(group, *receiver_)) {}

EachClientManager::~EachClientManager() {
  stop();
  if (KeepIfRunning(sender_)) {
    [[maybe_unused]] const auto* const kept = receiver_.release();  // the sender uses it
  } else {
    sender_.reset();
    KeepIfRunning(receiver_);
  }
}

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

bool EachClientManager::start() {
  if (IsStarted()) {
    return true;
  }
  ScopeLock lock(start_lock_);
  if (IsStarted() || stopped_) {
    return true;
  }
  if (!receiver_->IsUsable() || !sender_->IsUsable()) {
    return false;
  }
  // Side by side: each start lasts 100 ms, and a camera's opening waits for both.
  try {
    auto receiving = std::async(std::launch::async, [this] { receiver_->start(); });
    sender_->start();
    receiving.get();
  } catch (const std::runtime_error&) {  // std::system_error included
    sender_->stop();
    receiver_->stop();
    return false;
  }
  started_.store(true, std::memory_order_release);
  return true;
}

void EachClientManager::stop() {
  {
    // Not held while waiting: a callback may be about to ask whether the threads run.
    ScopeLock lock(start_lock_);
    stopped_ = true;
  }
  sender_->stop();
  receiver_->stop();
}
