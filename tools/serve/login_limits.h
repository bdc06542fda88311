// How long who guesses passwords is held off.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "cms/runtime/critical.h"

namespace tools {

// After some wrong ones each further login of an address, and of a user name, has to wait, twice as
// long each time; a quarter of an hour without another one forgives them. An address that a user
// has logged in from is not made to wait for what others guess of him. Bounded memory: the oldest
// are forgotten. Any thread.
class LoginLimits {
 public:
  using Clock = std::chrono::steady_clock;

  // Zero: go on. The address is in host byte order.
  std::chrono::seconds Pause(std::uint32_t address, const std::string& user,
                             Clock::time_point now = Clock::now());
  void Wrong(std::uint32_t address, const std::string& user, Clock::time_point now = Clock::now());
  void Good(std::uint32_t address, const std::string& user);

 private:
  template <class Key>
  class Failures {
   public:
    // So many are free; then the waits begin, up to the longest.
    Failures(unsigned free, std::chrono::seconds longest) : free_(free), longest_(longest) {}
    Clock::time_point Until(const Key& key, Clock::time_point now);
    void Add(const Key& key, Clock::time_point now);
    void Forget(const Key& key) { counts_.erase(key); }

   private:
    struct Count {
      unsigned wrong = 0;
      Clock::time_point last;
      Clock::time_point until;
    };
    const unsigned free_;
    const std::chrono::seconds longest_;
    std::map<Key, Count> counts_;
  };

  CMSCritical lock_;
  Failures<std::uint32_t> addresses_ CMS_GUARDED_BY(lock_){20, std::chrono::minutes(15)};
  Failures<std::string> users_ CMS_GUARDED_BY(lock_){5, std::chrono::minutes(1)};
  std::set<std::pair<std::string, std::uint32_t>> known_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools
