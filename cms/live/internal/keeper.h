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
#include "cms/runtime/log.h"

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
  void SetSoundProblem(std::string problem);
  void SetAddress(std::string address);  // of the camera, as the log calls it
  ReconnectPolicy Policy() const;
  void SetPolicy(const ReconnectPolicy& policy);
  // Of the stream that is watched: it has no video at all. It asks nobody, so also while the stream
  // is being destroyed.
  bool IsSoundAlone() const { return soundAlone_.load(std::memory_order_relaxed); }
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
  void LogFailure() const;
  std::uint64_t PauseAfterFailure();
  void StartWatching(std::uint64_t now);
  bool IsPaused() const;
  bool HasNoFrames(std::uint64_t now, const StreamCounts& counts, const ReconnectPolicy& policy);
  void HandOver(bool watched, std::uint64_t now);
  void LogState(LogLevel level, const std::string& what) const;

  KeptStream* const stream_;
  CancelGate gate_;

  mutable CMSCritical statusLock_;
  ConnectionStatus status_ CMS_GUARDED_BY(statusLock_);
  ReconnectPolicy policy_ CMS_GUARDED_BY(statusLock_);
  std::string address_ CMS_GUARDED_BY(statusLock_);

  Watching watching_{*this};
  Opening opening_{*this};
  std::atomic<bool> kept_{false};
  std::atomic<bool> gaveUp_{false};  // the policy does not try again: Start may begin anew
  std::atomic<bool> opened_{false};  // by the client application: to be taken over at once
  std::atomic<bool> soundAlone_{false};
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
  std::uint64_t lastFrames_ = 0;
  std::uint64_t lastFrameAt_ = 0;  // or packet of a stream whose frames are not counted
};

}  // namespace cms
