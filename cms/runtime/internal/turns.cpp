#include "cms/runtime/internal/turns.h"

#include <algorithm>
#include <chrono>

#include "cms/runtime/clock.h"

namespace cms {
namespace {

// The longest single wait: bounds what a replaced test clock or a suspended host can delay.
constexpr std::uint64_t kLongestWaitMs = 60'000;
constexpr std::uint64_t kIdleThreadMs = 5'000;

}  // namespace

Turns& Turns::Keeping() {
  static auto* const turns = new Turns("cms-sites");
  return *turns;
}

Turns& Turns::Openings() {
  static auto* const turns = new Turns("cms-open");
  return *turns;
}

Turns& Turns::Recordings() {
  static auto* const turns = new Turns("cms-record");
  return *turns;
}

Turns& Turns::Moves() {
  static auto* const turns = new Turns("cms-moves");
  return *turns;
}

void Turns::Add(Member* member, std::uint64_t due) {
  const ScopeLock hold(lock_);
  members_[member].due = due;
  StartThreadIfNeeded();
  changed_.notify_one();
}

void Turns::Poke(Member* member) {
  const ScopeLock hold(lock_);
  const auto found = members_.find(member);
  if (found == members_.end()) {
    return;
  }
  if (found->second.running) {
    found->second.poked = true;
    return;
  }
  found->second.due = 0;
  StartThreadIfNeeded();
  changed_.notify_one();
}

void Turns::Remove(Member* member) {
  ScopeLock hold(lock_);
  const auto found = members_.find(member);
  if (found == members_.end()) {
    return;
  }
  found->second.removed = true;
  if (found->second.running && found->second.runner == std::this_thread::get_id()) {
    members_.erase(found);
    return;
  }
  turnEnded_.wait(lock_, [&]() CMS_REQUIRES(lock_) {
    const auto entry = members_.find(member);
    return entry == members_.end() || !entry->second.running;
  });
  members_.erase(member);
  if (members_.empty()) {
    changed_.notify_all();
  }
}

void Turns::StartThreadIfNeeded() {
  if (waiting_ > 0) {
    return;
  }
  // Where there is none to be had, the threads that run take over when their turns end.
  if (NamedThread::StartDetached(threadName_, [this] { Work(); })) {
    ++threads_;
  }
}

std::uint64_t Turns::NextPlace(std::uint64_t now) const {
  int quick = 0;
  std::uint64_t oldest = kNever;
  for (const auto& [member, entry] : members_) {
    if (entry.running && now - entry.began < kQuickTurnMs) {
      ++quick;
      oldest = std::min(oldest, entry.began);
    }
  }
  return quick < kMostTurns ? 0 : oldest + kQuickTurnMs;
}

void Turns::Work() {
  ScopeLock hold(lock_);
  std::uint64_t idleSince = members_.empty() ? 0 : TickMilliseconds();
  while (!members_.empty()) {
    const auto next = std::min_element(
        members_.begin(), members_.end(),
        [](const auto& a, const auto& b) { return a.second.NextTurn() < b.second.NextTurn(); });
    const std::uint64_t now = TickMilliseconds();
    const std::uint64_t due = std::max(next->second.NextTurn(), NextPlace(now));
    if (due > now) {
      if (waiting_ > 1 && now - idleSince > kIdleThreadMs) {
        break;
      }
      ++waiting_;
      const std::uint64_t idleLimit = waiting_ > 2 ? kIdleThreadMs : kLongestWaitMs;
      const std::uint64_t wait = std::min({due - now, kLongestWaitMs, idleLimit + 1});
      changed_.wait_for(lock_, std::chrono::milliseconds(wait));
      --waiting_;
      continue;
    }

    Member* const member = next->first;
    next->second.running = true;
    next->second.poked = false;
    next->second.due = kNever;
    next->second.runner = std::this_thread::get_id();
    next->second.began = now;
    StartThreadIfNeeded();
    hold.UnLock();
    const std::uint64_t nextDue = member->Turn(now);
    hold.Lock();
    if (const auto entry = members_.find(member);
        entry != members_.end() && entry->second.runner == std::this_thread::get_id()) {
      entry->second.running = false;
      entry->second.runner = {};
      entry->second.due = entry->second.poked ? 0 : std::min(entry->second.due, nextDue);
    }
    turnEnded_.notify_all();
    idleSince = TickMilliseconds();
  }
  --threads_;
  if (!members_.empty()) {
    StartThreadIfNeeded();
  }
  turnEnded_.notify_all();
}

}  // namespace cms
