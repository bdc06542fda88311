// Share, a bound on how much of something there is at once.
#pragma once

#include <atomic>

namespace cms {

// Any thread. What goes beyond the bound is refused, not waited for.
class Share {
 public:
  void SetMost(int most) { most_.store(most, std::memory_order_relaxed); }

  // A part of it while it lives, if there was one left.
  class Part {
   public:
    explicit Part(Share& share)
        : share_(share),
          given_(share.taken_.fetch_add(1, std::memory_order_relaxed) <
                 share.most_.load(std::memory_order_relaxed)) {}
    ~Part() { share_.taken_.fetch_sub(1, std::memory_order_relaxed); }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    explicit operator bool() const { return given_; }

   private:
    Share& share_;
    const bool given_;
  };

 private:
  std::atomic<int> most_{0};
  std::atomic<int> taken_{0};
};

}  // namespace cms
