#include "cms/live/internal/site_supervisor.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>

#include "cms/runtime/clock.h"

namespace cms {
namespace {

// The longest single wait: bounds what a replaced test clock or a suspended host can delay.
constexpr std::uint64_t kLongestWaitMs = 60'000;
constexpr std::uint64_t kIdleThreadMs = 5'000;

}  // namespace

SiteSupervisor& SiteSupervisor::Keeping() {
  static auto* const supervisor = new SiteSupervisor("cms-sites");
  return *supervisor;
}

SiteSupervisor& SiteSupervisor::Openings() {
  static auto* const supervisor = new SiteSupervisor("cms-open");
  return *supervisor;
}

SiteSupervisor& SiteSupervisor::Recordings() {
  static auto* const supervisor = new SiteSupervisor("cms-record");
  return *supervisor;
}

SiteSupervisor& SiteSupervisor::Moves() {
  static auto* const supervisor = new SiteSupervisor("cms-moves");
  return *supervisor;
}

void SiteSupervisor::Add(Site* site, std::uint64_t due) {
  std::lock_guard lock(mutex_);
  sites_[site].due = due;
  StartThreadIfNeeded();
  changed_.notify_one();
}

void SiteSupervisor::Poke(Site* site) {
  std::lock_guard lock(mutex_);
  const auto found = sites_.find(site);
  if (found == sites_.end()) {
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

void SiteSupervisor::Remove(Site* site) {
  std::unique_lock lock(mutex_);
  const auto found = sites_.find(site);
  if (found == sites_.end()) {
    return;
  }
  found->second.removed = true;
  if (found->second.running && found->second.runner == std::this_thread::get_id()) {
    sites_.erase(found);
    return;
  }
  turnEnded_.wait(lock, [&] {
    const auto entry = sites_.find(site);
    return entry == sites_.end() || !entry->second.running;
  });
  sites_.erase(site);
  if (sites_.empty()) {
    changed_.notify_all();
  }
}

void SiteSupervisor::StartThreadIfNeeded() {
  if (waiting_ > 0) {
    return;
  }
  try {
    std::thread([this] { Work(); }).detach();
  } catch (const std::system_error&) {
    return;  // the threads that run take over when their turns end
  }
  ++threads_;
}

std::uint64_t SiteSupervisor::NextPlace(std::uint64_t now) const {
  int quick = 0;
  std::uint64_t oldest = kNever;
  for (const auto& [site, entry] : sites_) {
    if (entry.running && now - entry.began < kQuickTurnMs) {
      ++quick;
      oldest = std::min(oldest, entry.began);
    }
  }
  return quick < kMostTurns ? 0 : oldest + kQuickTurnMs;
}

void SiteSupervisor::Work() {
  pthread_setname_np(pthread_self(), threadName_);
  std::unique_lock lock(mutex_);
  std::uint64_t idleSince = sites_.empty() ? 0 : TickMilliseconds();
  while (!sites_.empty()) {
    const auto next = std::min_element(
        sites_.begin(), sites_.end(),
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
      changed_.wait_for(lock, std::chrono::milliseconds(wait));
      --waiting_;
      continue;
    }

    Site* const site = next->first;
    next->second.running = true;
    next->second.poked = false;
    next->second.due = kNever;
    next->second.runner = std::this_thread::get_id();
    next->second.began = now;
    StartThreadIfNeeded();
    lock.unlock();
    const std::uint64_t nextDue = site->Turn(now);
    lock.lock();
    if (const auto entry = sites_.find(site);
        entry != sites_.end() && entry->second.runner == std::this_thread::get_id()) {
      entry->second.running = false;
      entry->second.runner = {};
      entry->second.due = entry->second.poked ? 0 : std::min(entry->second.due, nextDue);
    }
    turnEnded_.notify_all();
    idleSince = TickMilliseconds();
  }
  --threads_;
  if (!sites_.empty()) {
    StartThreadIfNeeded();
  }
  turnEnded_.notify_all();
}

}  // namespace cms
