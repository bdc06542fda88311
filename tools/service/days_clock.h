// The clock that recordings' days are counted by.
#pragma once

#include <cstdint>
#include <optional>

namespace tools {

// This computer's clock, unless that went ahead by itself: a clock that a dead battery or a wrong
// server has put ahead by a month would have a month of recordings removed. Then days go on as if
// it had not, until it is back, or has stayed where it is for kDoubt: then it is believed. Seconds;
// one thread.
class DaysClock {
 public:
  static constexpr std::int64_t kDoubt = 86'400;
  static constexpr std::int64_t kAway = 86'400;  // for which no recorder ran, without a doubt
  static constexpr std::int64_t kStep = 3'600;   // ahead, while one runs

  // `last`: Now() when a recorder last ran here, seconds since 1970-01-01 UTC; 0: never. `doubted`:
  // Doubted() then, so that one that is started anew every day comes to believe as well.
  explicit DaysClock(std::int64_t last, std::int64_t doubted = 0) : now_(last), doubted_(doubted) {}

  // `wall`: this computer's clock, since 1970-01-01 UTC; `passed`: of a clock that nobody sets.
  std::int64_t Now(std::int64_t wall, std::int64_t passed);
  // As of the last Now.
  bool IsInDoubt() const { return doubtedSince_.has_value(); }
  std::int64_t Doubted() const {
    return doubtedSince_ ? passed_ - *doubtedSince_ : 0;
  }  // for so long

 private:
  std::int64_t now_;
  std::int64_t passed_ = -1;
  std::int64_t doubted_;
  std::optional<std::int64_t> doubtedSince_;  // in passed time
};

}  // namespace tools
