#include "tools/serve/login_limits.h"

#include <algorithm>

namespace tools {
namespace {

constexpr std::size_t kMostRemembered = 4096;
constexpr std::chrono::minutes kForgiven{15};

}  // namespace

template <class Key>
LoginLimits::Clock::time_point LoginLimits::Failures<Key>::Until(const Key& key,
                                                                 Clock::time_point now) {
  const auto found = counts_.find(key);
  return found == counts_.end() ? now : found->second.until;
}

template <class Key>
void LoginLimits::Failures<Key>::Add(const Key& key, Clock::time_point now) {
  if (!counts_.contains(key) && counts_.size() >= kMostRemembered) {
    counts_.erase(std::min_element(
        counts_.begin(), counts_.end(),
        [](const auto& a, const auto& b) { return a.second.last < b.second.last; }));
  }
  Count& count = counts_[key];
  if (now - count.last > kForgiven) {
    count.wrong = 0;
  }
  count.last = now;
  if (++count.wrong > free_) {
    const unsigned doublings = std::min(count.wrong - free_ - 1, 16U);
    count.until = now + std::min(longest_, std::chrono::seconds(1U << doublings));
  }
}

std::chrono::seconds LoginLimits::Pause(std::uint32_t address, const std::string& user,
                                        Clock::time_point now) {
  const ScopeLock lock(lock_);
  auto until = addresses_.Until(address, now);
  if (!known_.contains({user, address})) {
    until = std::max(until, users_.Until(user, now));
  }
  return std::max(std::chrono::ceil<std::chrono::seconds>(until - now), std::chrono::seconds(0));
}

void LoginLimits::Wrong(std::uint32_t address, const std::string& user, Clock::time_point now) {
  const ScopeLock lock(lock_);
  addresses_.Add(address, now);
  users_.Add(user, now);
}

void LoginLimits::Good(std::uint32_t address, const std::string& user) {
  const ScopeLock lock(lock_);
  users_.Forget(user);
  if (known_.size() >= kMostRemembered) {
    known_.clear();
  }
  known_.emplace(user, address);
}

}  // namespace tools
