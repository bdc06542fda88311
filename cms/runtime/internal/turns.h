// Turns calls each of its members when its time has come: keep-alives and watchdogs, openings and
// closings, recordings, moves.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <thread>

#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {

// A process-wide timer with a few threads. A turn may block, so a thread that goes into a turn
// leaves the waiting to another one. At most kMostTurns turns begin together, which keeps a crowd
// of returning cameras from being opened all at once; but a turn that takes longer than
// kQuickTurnMs waits for somebody who may never answer: it gives its place to the next one, so that
// no number of silent cameras can use the places up. Threads beyond two end when they have been
// idle for a while, and all of them end when no member is left. The object itself is never
// destroyed: its threads may outlive static objects.
class Turns {
 public:
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};
  static constexpr int kMostTurns = 16;
  static constexpr std::uint64_t kQuickTurnMs = 200;

  class Member {
   public:
    // Does what is due and returns the tick (cms::TickMilliseconds) of the next turn, or kNever.
    // Called on a thread of the turns, never twice at the same time for one member.
    virtual std::uint64_t Turn(std::uint64_t now) = 0;

   protected:
    ~Member() = default;
  };

  // For keep-alives and watchdogs: turns that wait for nobody.
  static Turns& Keeping();
  // For openings and closings, which wait for cameras.
  static Turns& Openings();
  // For recordings, which wait for no camera: however many sites are being opened, what was
  // received reaches the disk in time.
  static Turns& Recordings();
  // For looking at network storage, which may hang for as long as it likes.
  static Turns& Moves();

  explicit Turns(ThreadName threadName) : threadName_(threadName) {}

  void Add(Member* member, std::uint64_t due);  // an added member is only given the new time
  void Poke(Member* member);                    // its turn comes at once; unknown sites are ignored

  // No turn of the member runs or starts after this returns, unless it is called from that turn.
  void Remove(Member* member);

 private:
  struct Entry {
    std::uint64_t due = kNever;
    bool running = false;
    bool removed = false;  // Remove waits for the turn in progress; no other one starts
    bool poked = false;    // while running: the next turn is due at once
    std::thread::id runner;
    std::uint64_t began = 0;  // while running
    std::uint64_t NextTurn() const { return running || removed ? kNever : due; }
  };

  void Work();
  void StartThreadIfNeeded() CMS_REQUIRES(lock_);
  // The tick from which another turn may begin.
  std::uint64_t NextPlace(std::uint64_t now) const CMS_REQUIRES(lock_);

  const ThreadName threadName_;
  CMSCritical lock_;
  std::condition_variable_any changed_;
  std::condition_variable_any turnEnded_;
  std::map<Member*, Entry> members_ CMS_GUARDED_BY(lock_);
  int threads_ CMS_GUARDED_BY(lock_) = 0;
  int waiting_ CMS_GUARDED_BY(lock_) = 0;  // threads that wait for a due turn
};

}  // namespace cms
