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
    LogState(LogLevel::kInfo, "the stream plays");
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

void Keeper::SetAddress(std::string address) {
  ScopeLock lock(statusLock_);
  address_ = std::move(address);
}

void Keeper::SetSoundProblem(std::string problem) {
  if (!problem.empty()) {
    LogState(LogLevel::kWarning, "its sound is left out: " + problem);
  }
  ScopeLock lock(statusLock_);
  status_.sound = std::move(problem);
}

// The fault's own words stand behind what is said; no lock is held that a camera could keep.
void Keeper::LogState(LogLevel level, const std::string& what) const {
  if (!IsLogged(level)) {
    return;
  }
  std::string text;
  {
    ScopeLock lock(statusLock_);
    text = (address_.empty() ? "a camera" : address_) + ": " + what;
  }
  Log(level, "connection", text);
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
  lastFrameAt_ = now;
  const StreamCounts counts = stream_->Counts();
  lastCount_ = counts.packets;
  lastFrames_ = counts.frames.value_or(0);
  soundAlone_ = counts.soundAlone;
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
    LogFailure();
    return PauseAfterFailure();
  }
  if (everOpen_) {
    reconnects_.fetch_add(1, std::memory_order_relaxed);
  }
  LogState(LogLevel::kInfo, everOpen_ ? "the stream plays again" : "the stream plays");
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
  const StreamCounts counts = stream_->Counts();
  if (counts.packets != lastCount_ || IsPaused()) {
    lastCount_ = counts.packets;
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
  if (fault == ConnectionFault::kNone && HasNoFrames(now, counts, policy)) {
    fault = ConnectionFault::kNoFrames;
  }
  if (fault == ConnectionFault::kNone) {
    // Four looks within the limit notice a dead stream at most a quarter late.
    return now + std::min<std::uint64_t>(nextIn, std::max(policy.deadStreamMs / 4, 1u));
  }

  LogState(LogLevel::kWarning, std::string("the stream is lost: ") + ConnectionFaultName(fault) +
                                   ": " + Status().detail + "; opening it again");
  isToClose_ = true;
  HandOver(false, now);
  return Turns::kNever;
}

// Says so in the status while that is so; true when the stream is to be opened anew, for many a
// camera begins a session with a key picture.
bool Keeper::HasNoFrames(std::uint64_t now, const StreamCounts& counts,
                         const ReconnectPolicy& policy) {
  const bool comes = !counts.frames || *counts.frames != lastFrames_;
  if (comes || IsPaused()) {
    lastFrames_ = counts.frames.value_or(0);
    lastFrameAt_ = now;
  }
  // Packets that came since, not the silence behind the last frame.
  const std::uint64_t without = lastMoved_ - std::min(lastFrameAt_, lastMoved_);
  const bool none = without >= policy.noFramesMs;
  if (none != (Status().fault == ConnectionFault::kNoFrames)) {
    LogState(none ? LogLevel::kWarning : LogLevel::kInfo,
             none ? "packets come, but no whole picture" : "pictures come");
    SetFault(none ? ConnectionFault::kNoFrames : ConnectionFault::kNone,
             none ? "packets come, but no whole picture for " +
                        std::to_string(policy.noFramesMs / 1000) +
                        " s; where packets are lost try interleaved TCP, else a shorter key-frame "
                        "interval or another codec at the camera"
                  : "");
  }
  return without >= policy.framelessMs;
}

// An error is what does not pass by itself.
void Keeper::LogFailure() const {
  const ConnectionStatus status = Status();
  if (status.fault == ConnectionFault::kCancelled) {
    return;
  }
  const bool lasts = status.fault == ConnectionFault::kPasswordRefused ||
                     status.fault == ConnectionFault::kBadAddress ||
                     status.fault == ConnectionFault::kNoSuchStream ||
                     status.fault == ConnectionFault::kNoUsableVideo ||
                     status.fault == ConnectionFault::kCertificateRefused;
  LogState(lasts ? LogLevel::kError : LogLevel::kWarning,
           std::string("not opened: ") + ConnectionFaultName(status.fault) + ": " + status.detail +
               (Policy().enabled ? "; tried again by itself" : ""));
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
