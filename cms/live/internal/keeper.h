// The keeper of a stream: its status, keep-alive, watchdog and reconnection, one turn at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "cms/live/connection_status.h"
#include "cms/live/kept_stream.h"
#include "cms/live/reconnect_policy.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/runtime/internal/turns.h"

namespace cms {

// A site is either watched, by turns that wait for nobody, or opened (and what it had before
// closed), by turns that wait for the camera: each kind has threads of its own.
class Keeper final {
 public:
  // Without a stream nothing can be kept; the status is there all the same.
  explicit Keeper(KeptStream* stream) : stream_(stream) {}

  // `playing`: the stream is open already, and is watched from now on. False when kept already.
  bool Start(bool playing);
  void Stop();
  void Poke();
  CancelGate& Gate() { return gate_; }  // of the openings

  ConnectionStatus Status() const;
  void SetFault(ConnectionFault fault, std::string detail);
  void SetState(ConnectionState state);
  ReconnectPolicy Policy() const;
  void SetPolicy(const ReconnectPolicy& policy);
  StreamCounts Counts() const { return stream_ != nullptr ? stream_->Counts() : StreamCounts{}; }

 private:
  class Watching final : public Turns::Member {
   public:
    explicit Watching(Keeper& keeper) : keeper_(keeper) {}
    std::uint64_t Turn(std::uint64_t) override { return keeper_.WatchTurn(); }

   private:
    Keeper& keeper_;
  };
  class Opening final : public Turns::Member {
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

  KeptStream* const stream_;
  CancelGate gate_;

  mutable CMSCritical statusLock_;
  ConnectionStatus status_ CMS_GUARDED_BY(statusLock_);
  ReconnectPolicy policy_ CMS_GUARDED_BY(statusLock_);

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

}  // namespace cms
