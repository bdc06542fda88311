#include "cms/live/internal/keeper.h"

#include <algorithm>
#include <random>

#include "cms/runtime/clock.h"

using cms::SiteSupervisor;

bool CMSClientBase::Keeper::Start(bool playing) {
  if (gaveUp_.exchange(false)) {
    Stop();
  }
  if (kept_.exchange(true)) {
    return false;
  }
  const std::uint64_t now = cms::TickMilliseconds();
  open_ = playing;
  everOpen_ = playing;
  failures_ = 0;
  reconnects_.store(0, std::memory_order_relaxed);
  retryTick_.store(0, std::memory_order_relaxed);
  if (playing) {
    StartWatching(now);
  } else {
    client_.SetState(ConnectionState::kWaiting);
  }
  SiteSupervisor::Instance().Add(this, now);
  return true;
}

void CMSClientBase::Keeper::Stop() {
  if (!kept_.load()) {
    return;
  }
  client_.CancelOpening();
  SiteSupervisor::Instance().Remove(this);
  client_.ResumeOpening();
  kept_.store(false);
}

void CMSClientBase::Keeper::Poke() {
  SiteSupervisor::Instance().Poke(this);
}

std::uint64_t CMSClientBase::Keeper::RetryInMs() const {
  const std::uint64_t now = cms::TickMilliseconds();
  const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
  return retry > now ? retry - now : 0;
}

void CMSClientBase::Keeper::StartWatching(std::uint64_t now) {
  openedAt_ = now;
  lastMoved_ = now;
  lastCount_ = client_.PacketCount();
  nextKeepAlive_ = now;
}

std::uint64_t CMSClientBase::Keeper::Turn(std::uint64_t now) {
  if (open_) {
    return PlayingTurn(now);
  }
  const std::uint64_t retry = retryTick_.load(std::memory_order_relaxed);
  return now < retry ? retry : OpenTurn(now);
}

std::uint64_t CMSClientBase::Keeper::OpenTurn(std::uint64_t) {
  if (client_.OpenForKeeping() == 0) {
    return PauseAfterFailure();
  }
  open_ = true;
  if (everOpen_) {
    reconnects_.fetch_add(1, std::memory_order_relaxed);
  }
  everOpen_ = true;
  const std::uint64_t now = cms::TickMilliseconds();
  StartWatching(now);
  return PlayingTurn(now);
}

std::uint64_t CMSClientBase::Keeper::PlayingTurn(std::uint64_t now) {
  const ReconnectPolicy policy = client_.GetPolicy();
  const std::uint64_t count = client_.PacketCount();
  if (count != lastCount_) {
    lastCount_ = count;
    lastMoved_ = now;
  }
  if (now - openedAt_ >= policy.settledMs) {
    failures_ = 0;
  }

  ConnectionFault fault = ConnectionFault::kNone;
  std::uint64_t nextIn = 0;
  fault = client_.KeepAlive(now, &nextIn);
  if (fault == ConnectionFault::kNone && now - lastMoved_ >= policy.deadStreamMs) {
    fault = ConnectionFault::kStreamDied;
    client_.SetFault(fault, "no packet for " + std::to_string(policy.deadStreamMs / 1000) +
                                " s although the connection stands; opening it again");
  }
  if (fault == ConnectionFault::kNone) {
    // Four looks within the limit notice a dead stream at most a quarter late.
    return now + std::min<std::uint64_t>(nextIn, std::max(policy.deadStreamMs / 4, 1u));
  }

  open_ = false;
  client_.CloseForKeeping();
  return PauseAfterFailure();
}

std::uint64_t CMSClientBase::Keeper::PauseAfterFailure() {
  const ReconnectPolicy policy = client_.GetPolicy();
  const ConnectionStatus status = client_.GetConnectionStatus();
  if (!policy.enabled || status.fault == ConnectionFault::kCancelled) {
    client_.SetState(ConnectionState::kClosed);
    gaveUp_.store(true);
    return SiteSupervisor::kNever;
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
