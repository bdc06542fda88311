#include "cms/live/internal/keeper.h"

#include <algorithm>
#include <random>
#include <string>
#include <utility>

#include "cms/runtime/clock.h"

using cms::Turns;

bool CMSClientBase::Keeper::Start(bool playing) {
  if (gaveUp_.exchange(false)) {
    Stop();
  }
  const std::uint64_t now = cms::TickMilliseconds();
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
    client_.SetState(ConnectionState::kWaiting);
  }
  {
    ScopeLock hold(handLock_);
    stopping_ = false;
  }
  HandOver(playing, now);
  return true;
}

void CMSClientBase::Keeper::Stop() {
  if (!kept_.load()) {
    return;
  }
  {
    ScopeLock hold(handLock_);
    stopping_ = true;  // from now on no turn of one kind leads to one of the other
  }
  client_.CancelOpening();
  Turns::Keeping().Remove(&watching_);
  Turns::Openings().Remove(&opening_);
  client_.ResumeOpening();
  kept_.store(false);
}

void CMSClientBase::Keeper::Poke() {
  Turns::Keeping().Poke(&watching_);
}

std::uint64_t CMSClientBase::Keeper::RetryInMs() const {
  const std::uint64_t now = cms::TickMilliseconds();
  const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
  return retry > now ? retry - now : 0;
}

void CMSClientBase::Keeper::HandOver(bool watched, std::uint64_t now) {
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

bool CMSClientBase::Keeper::IsPaused() const {
  ScopeLock hold(client_.statusLock_);
  return client_.status_.state == ConnectionState::kPaused;
}

void CMSClientBase::Keeper::StartWatching(std::uint64_t now) {
  openedAt_ = now;
  lastMoved_ = now;
  lastCount_ = client_.PacketCount();
}

std::uint64_t CMSClientBase::Keeper::OpenTurn(std::uint64_t now) {
  if (watched_.load()) {
    return Turns::kNever;
  }
  if (std::exchange(isToClose_, false)) {
    client_.CloseForKeeping();
    return PauseAfterFailure();
  }
  const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
  if (!opened_.exchange(false) && now < retry) {
    return retry;
  }
  if (client_.OpenForKeeping() == 0) {
    return PauseAfterFailure();
  }
  if (everOpen_) {
    reconnects_.fetch_add(1, std::memory_order_relaxed);
  }
  everOpen_ = true;
  const std::uint64_t opened = cms::TickMilliseconds();
  StartWatching(opened);
  HandOver(true, opened);
  return Turns::kNever;
}

std::uint64_t CMSClientBase::Keeper::WatchTurn() {
  if (!watched_.load()) {
    return Turns::kNever;
  }
  const std::uint64_t now = cms::TickMilliseconds();  // not before the watching began
  const ReconnectPolicy policy = client_.GetPolicy();
  const std::uint64_t count = client_.PacketCount();
  if (count != lastCount_ || IsPaused()) {
    lastCount_ = count;
    lastMoved_ = now;
  }
  if (now - openedAt_ >= policy.settledMs) {
    failures_ = 0;
  }

  std::uint64_t nextIn = 0;
  ConnectionFault fault = client_.KeepAlive(now, &nextIn);
  if (fault == ConnectionFault::kNone && now - lastMoved_ >= policy.deadStreamMs) {
    fault = ConnectionFault::kStreamDied;
    client_.SetFault(fault, "no video for " + std::to_string(policy.deadStreamMs / 1000) +
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

std::uint64_t CMSClientBase::Keeper::PauseAfterFailure() {
  const ReconnectPolicy policy = client_.GetPolicy();
  const ConnectionStatus status = client_.GetConnectionStatus();
  if (!policy.enabled || status.fault == ConnectionFault::kCancelled) {
    client_.SetState(ConnectionState::kClosed);
    gaveUp_.store(true);
    return Turns::kNever;
  }
  ++failures_;
  static thread_local std::minstd_rand random{std::random_device{}()};
  const std::uint64_t retry =
      cms::TickMilliseconds() +
      cms::ReconnectPause(policy, status.fault, failures_, static_cast<std::uint32_t>(random()));
  retryTick_.store(retry, std::memory_order_relaxed);
  client_.SetState(ConnectionState::kWaiting);
  return retry;
}
