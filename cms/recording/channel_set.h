// ChannelSet, which of the 32 channels of a site something holds for.
#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>

namespace cms {

inline constexpr unsigned kChannels = 32;

// Any thread may call any member. A channel of 32 or more is a programming error and throws.
class ChannelSet {
 public:
  static void Check(unsigned channel) {
    if (channel >= kChannels) {
      throw std::out_of_range("invalid bitset<N> position");
    }
  }

  void Set(unsigned channel) { bits_.fetch_or(Bit(channel), std::memory_order_relaxed); }
  void Clear(unsigned channel) { bits_.fetch_and(~Bit(channel), std::memory_order_relaxed); }
  void ClearAll() { bits_.store(0, std::memory_order_relaxed); }
  bool Has(unsigned channel) const {
    return (bits_.load(std::memory_order_relaxed) & Bit(channel)) != 0;
  }
  bool Any() const { return bits_.load(std::memory_order_relaxed) != 0; }

 private:
  static std::uint32_t Bit(unsigned channel) {
    Check(channel);
    return std::uint32_t{1} << channel;
  }

  std::atomic<std::uint32_t> bits_{0};
};

}  // namespace cms
