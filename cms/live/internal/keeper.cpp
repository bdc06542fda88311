#include "cms/live/internal/keeper.h"

#include <algorithm>
#include <random>
#include <string>
#include <utility>

#include "cms/runtime/clock.h"

namespace cms {

bool Keeper::Start(bool playing) {
  if (stream_ == nullptr) {
    return false;
  }
  if (gaveUp_.exchange(false)) {
    Stop();
  }
  const std::uint64_t now = TickMilliseconds();
  if (kept_.exchange(true)) {
    if (playing) {
      opened_.store(true);
      Turns::Openings().Poke(&opening_);
    }
    return false;
  }
  everOpen_ = playing;
  isToClose_ = false;
  failures_ = 0;
  opened_.store(false);
  reconnects_.store(0, std::memory_order_relaxed);
  retryTick_.store(0, std::memory_order_relaxed);
  if (playing) {
    StartWatching(now);
  } else {
    SetState(ConnectionState::kWaiting);
  }
  {
    ScopeLock hold(handLock_);
    stopping_ = false;
  }
  HandOver(playing, now);
  return true;
}

void Keeper::Stop() {
  if (!kept_.load()) {
    return;
  }
  {
    ScopeLock hold(handLock_);
    stopping_ = true;  // from now on no turn of one kind leads to one of the other
  }
  const CancelGate::Shut shut(gate_);
  Turns::Keeping().Remove(&watching_);
  Turns::Openings().Remove(&opening_);
  kept_.store(false);
}

void Keeper::Poke() {
  Turns::Keeping().Poke(&watching_);
}

ConnectionStatus Keeper::Status() const {
  ScopeLock lock(statusLock_);
  ConnectionStatus status = status_;
  status.reconnects = reconnects_.load(std::memory_order_relaxed);
  if (status.state == ConnectionState::kWaiting) {
    const std::uint64_t now = TickMilliseconds();
    const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
    status.retryInMs = retry > now ? retry - now : 0;
  }
  return status;
}

void Keeper::SetFault(ConnectionFault fault, std::string detail) {
  ScopeLock lock(statusLock_);
  status_.fault = fault;
  status_.detail = std::move(detail);
}

void Keeper::SetState(ConnectionState state) {
  ScopeLock lock(statusLock_);
  status_.state = state;
}

bool Keeper::IsPaused() const {
  ScopeLock lock(statusLock_);
  return status_.state == ConnectionState::kPaused;
}

ReconnectPolicy Keeper::Policy() const {
  ScopeLock lock(statusLock_);
  return policy_;
}

void Keeper::SetPolicy(const ReconnectPolicy& policy) {
  ScopeLock lock(statusLock_);
  policy_ = policy;
}

void Keeper::HandOver(bool watched, std::uint64_t now) {
  watched_.store(watched);
  ScopeLock hold(handLock_);
  if (stopping_) {
    return;
  }
  if (watched) {
    Turns::Keeping().Add(&watching_, now);
  } else {
    Turns::Openings().Add(&opening_, now);
  }
}

void Keeper::StartWatching(std::uint64_t now) {
  openedAt_ = now;
  lastMoved_ = now;
  lastCount_ = stream_->Counts().packets;
}

std::uint64_t Keeper::OpenTurn(std::uint64_t now) {
  if (watched_.load()) {
    return Turns::kNever;
  }
  if (std::exchange(isToClose_, false)) {
    stream_->CloseForKeeping();
    return PauseAfterFailure();
  }
  const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
  if (!opened_.exchange(false) && now < retry) {
    return retry;
  }
  if (!stream_->OpenForKeeping()) {
    return PauseAfterFailure();
  }
  if (everOpen_) {
    reconnects_.fetch_add(1, std::memory_order_relaxed);
  }
  everOpen_ = true;
  const std::uint64_t opened = TickMilliseconds();
  StartWatching(opened);
  HandOver(true, opened);
  return Turns::kNever;
}

std::uint64_t Keeper::WatchTurn() {
  if (!watched_.load()) {
    return Turns::kNever;
  }
  const std::uint64_t now = TickMilliseconds();  // not before the watching began
  const ReconnectPolicy policy = Policy();
  const std::uint64_t count = stream_->Counts().packets;
  if (count != lastCount_ || IsPaused()) {
    lastCount_ = count;
    lastMoved_ = now;
  }
  if (now - openedAt_ >= policy.settledMs) {
    failures_ = 0;
  }

  std::uint64_t nextIn = 0;
  ConnectionFault fault = stream_->KeepAlive(now, &nextIn);
  if (fault == ConnectionFault::kNone && now - lastMoved_ >= policy.deadStreamMs) {
    fault = ConnectionFault::kStreamDied;
    SetFault(fault, "no video for " + std::to_string(policy.deadStreamMs / 1000) +
                        " s although the connection stands; opening it again");
  }
  if (fault == ConnectionFault::kNone) {
    // Four looks within the limit notice a dead stream at most a quarter late.
    return now + std::min<std::uint64_t>(nextIn, std::max(policy.deadStreamMs / 4, 1u));
  }

  isToClose_ = true;
  HandOver(false, now);
  return Turns::kNever;
}

std::uint64_t Keeper::PauseAfterFailure() {
  const ReconnectPolicy policy = Policy();
  const ConnectionFault fault = Status().fault;
  if (!policy.enabled || fault == ConnectionFault::kCancelled) {
    SetState(ConnectionState::kClosed);
    gaveUp_.store(true);
    return Turns::kNever;
  }
  ++failures_;
  static thread_local std::minstd_rand random{std::random_device{}()};
  const std::uint64_t retry =
      TickMilliseconds() +
      ReconnectPause(policy, fault, failures_, static_cast<std::uint32_t>(random()));
  retryTick_.store(retry, std::memory_order_relaxed);
  SetState(ConnectionState::kWaiting);
  return retry;
}

}  // namespace cms
