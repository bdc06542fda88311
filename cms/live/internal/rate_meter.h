// RateMeter: how much a stream delivers at this moment.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace cms {

// The rates of the last second or so, which fall to 0 when nothing comes any more: after two
// seconds, or after two of the usual distances between frames more than that. Ticks are
// cms::TickMilliseconds. Add on the one thread that delivers, Restart while that is idle, the
// questions from any.
class RateMeter {
 public:
  void Add(std::uint64_t now, bool video, std::uint64_t bytes) {
    if (begin_ == 0) {
      begin_ = now;
    } else if (now - begin_ >= kIntervalMs) {
      const auto elapsed = static_cast<double>(now - begin_);
      fps_.store(static_cast<double>(frames_) * 1000 / elapsed, std::memory_order_relaxed);
      kbps_.store(static_cast<double>(bytes_) * 8 / elapsed, std::memory_order_relaxed);
      begin_ = now;
      frames_ = 0;
      bytes_ = 0;
    }
    frames_ += video ? 1 : 0;
    bytes_ += bytes;
    last_.store(now, std::memory_order_relaxed);
    if (video) {
      lastVideo_.store(now, std::memory_order_relaxed);
    }
  }

  // A new opening: what the one before delivered does not count.
  void Restart() {
    begin_ = 0;
    frames_ = 0;
    bytes_ = 0;
    fps_.store(0, std::memory_order_relaxed);
    kbps_.store(0, std::memory_order_relaxed);
  }

  std::uint64_t LastVideo() const { return lastVideo_.load(std::memory_order_relaxed); }  // 0: none
  double Fps(std::uint64_t now) const { return IsSilent(now, LastVideo()) ? 0.0 : Rate(); }
  double Kbps(std::uint64_t now) const {  // 1 kilobit: 1000 bits
    const bool silent = IsSilent(now, last_.load(std::memory_order_relaxed));
    return silent ? 0.0 : kbps_.load(std::memory_order_relaxed);
  }

 private:
  static constexpr std::uint64_t kIntervalMs = 1'000;

  double Rate() const { return fps_.load(std::memory_order_relaxed); }
  bool IsSilent(std::uint64_t now, std::uint64_t last) const {
    const double distance = 1000 / std::max(Rate(), 0.01);
    const double patience = 2'000 + 2 * (Rate() > 0 ? distance : 0.0);
    return static_cast<double>(now - std::min(last, now)) > patience;
  }

  std::uint64_t begin_ = 0;  // of the interval that is being counted
  std::uint64_t frames_ = 0;
  std::uint64_t bytes_ = 0;
  std::atomic<double> fps_{0};
  std::atomic<double> kbps_{0};
  std::atomic<std::uint64_t> last_{0};
  std::atomic<std::uint64_t> lastVideo_{0};
};

}  // namespace cms
