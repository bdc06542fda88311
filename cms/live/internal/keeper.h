// The keeper of a site client: keep-alive, watchdog and reconnection, one turn at a time.
#pragma once

#include <atomic>
#include <cstdint>

#include "cms/live/client_base.h"
#include "cms/live/internal/site_supervisor.h"

class CMSClientBase::Keeper final : public cms::SiteSupervisor::Site {
 public:
  explicit Keeper(CMSClientBase& client) : client_(client) {}

  bool Start(bool playing);  // playing: the stream is open already; false when kept already
  void Stop();
  void Poke();
  std::uint64_t Turn(std::uint64_t now) override;

  std::uint32_t Reconnects() const { return reconnects_.load(std::memory_order_relaxed); }
  std::uint64_t RetryInMs() const;

 private:
  std::uint64_t OpenTurn(std::uint64_t now);
  std::uint64_t PlayingTurn(std::uint64_t now);
  std::uint64_t PauseAfterFailure();
  void StartWatching(std::uint64_t now);

  CMSClientBase& client_;
  std::atomic<bool> kept_{false};
  std::atomic<bool> gaveUp_{false};  // the policy does not try again: Start may begin anew
  std::atomic<std::uint32_t> reconnects_{0};
  std::atomic<std::uint64_t> retryTick_{0};

  // Below: only the turn in progress, or Start before the first turn.
  bool open_ = false;
  bool everOpen_ = false;
  std::uint32_t failures_ = 0;
  std::uint64_t openedAt_ = 0;
  std::uint64_t nextKeepAlive_ = 0;
  std::uint64_t lastCount_ = 0;
  std::uint64_t lastMoved_ = 0;
};
