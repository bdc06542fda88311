// The keeper of a site client: keep-alive, watchdog and reconnection, one turn at a time.
#pragma once

#include <atomic>
#include <cstdint>

#include "cms/live/client_base.h"
#include "cms/runtime/internal/turns.h"

// A site is either watched, by turns that wait for nobody, or opened (and what it had before
// closed), by turns that wait for the camera: each kind has threads of its own.
class CMSClientBase::Keeper final {
 public:
  explicit Keeper(CMSClientBase& client) : client_(client) {}

  // `playing`: the stream is open already, and is watched from now on. False when kept already.
  bool Start(bool playing);
  void Stop();
  void Poke();

  std::uint32_t Reconnects() const { return reconnects_.load(std::memory_order_relaxed); }
  std::uint64_t RetryInMs() const;

 private:
  class Watching final : public cms::Turns::Member {
   public:
    explicit Watching(Keeper& keeper) : keeper_(keeper) {}
    std::uint64_t Turn(std::uint64_t) override { return keeper_.WatchTurn(); }

   private:
    Keeper& keeper_;
  };
  class Opening final : public cms::Turns::Member {
   public:
    explicit Opening(Keeper& keeper) : keeper_(keeper) {}
    std::uint64_t Turn(std::uint64_t now) override { return keeper_.OpenTurn(now); }

   private:
    Keeper& keeper_;
  };

  std::uint64_t WatchTurn();
  std::uint64_t OpenTurn(std::uint64_t now);
  std::uint64_t PauseAfterFailure();
  void StartWatching(std::uint64_t now);
  bool IsPaused() const;
  void HandOver(bool watched, std::uint64_t now);

  CMSClientBase& client_;
  Watching watching_{*this};
  Opening opening_{*this};
  std::atomic<bool> kept_{false};
  std::atomic<bool> gaveUp_{false};  // the policy does not try again: Start may begin anew
  std::atomic<bool> opened_{false};  // by the client application: to be taken over at once
  std::atomic<std::uint32_t> reconnects_{0};
  std::atomic<std::uint64_t> retryTick_{0};

  CMSCritical handLock_;
  bool stopping_ CMS_GUARDED_BY(handLock_) = false;

  // Whose turns count. What stands below belongs to them, or to Start before the first one; setting
  // this hands it over.
  std::atomic<bool> watched_{false};
  bool everOpen_ = false;
  bool isToClose_ = false;  // what ended is to be closed before the next attempt
  std::uint32_t failures_ = 0;
  std::uint64_t openedAt_ = 0;
  std::uint64_t lastCount_ = 0;
  std::uint64_t lastMoved_ = 0;
};
