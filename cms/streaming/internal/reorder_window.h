// ReorderWindow puts RTP packets that a network delivered out of order in order again.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/streaming/stream_probes.h"

namespace cms {

// Each packet that arrives is given to Put; the packets that are to go on then, in order, come from
// Next until there is none:
//
//   for (auto next = window.Put(packet); !next.empty(); next = window.Next()) ...
//
// Packets in order pass through as they are. One that is ahead is copied and waits for those in
// front of it, at most until kPackets numbers or kMilliseconds have gone by; then they count as
// lost and it goes on. Late packets and repetitions are left out. A sender that starts anew
// (numbers far away) is followed at once. Memory for the packets that wait is
// allocated once, with the first of them.
//
// Threads: one at a time; the counters may be read from any.
class ReorderWindow {
 public:
  static constexpr std::size_t kPackets = 64;
  static constexpr std::uint64_t kMilliseconds = 50;
  static constexpr std::size_t kLongestHeld = 2048;  // bytes; longer packets do not wait

  // Takes a whole RTP packet with its header (a shorter one than the fixed header is left out) and
  // gives the first packet that is to go on; nothing when there is none. It is valid until the next
  // call, the one that was taken as long as it is the caller's.
  Bytes Put(Bytes packet);
  // The next one. Also, without a packet, what has waited too long.
  Bytes Next();
  bool IsWaiting() const { return held_ > 0; }

  // Packets that had to wait, and those that came when they were no longer waited for.
  std::uint32_t ReorderedPackets() const { return reordered_.load(std::memory_order_relaxed); }
  std::uint32_t LatePackets() const { return late_.load(std::memory_order_relaxed); }

 private:
  struct Slot {
    bool used = false;
    std::uint64_t arrival = 0;  // milliseconds
    std::size_t length = 0;
  };

  Slot& SlotOf(std::uint16_t sequence) { return slots_[sequence % kPackets]; }
  std::uint8_t* BytesOf(std::uint16_t sequence) {
    return memory_.get() + sequence % kPackets * kLongestHeld;
  }
  std::size_t Ahead(std::uint16_t sequence) const {
    return static_cast<std::uint16_t>(sequence - expected_);
  }
  bool Hold(Bytes packet, std::uint16_t sequence);
  Bytes Release();
  void SkipMissing();
  bool IsOverdue();

  Bytes arrived_;  // not dealt with yet
  std::array<Slot, kPackets> slots_;
  std::unique_ptr<std::uint8_t[]> memory_;  // kLongestHeld for each slot
  std::size_t held_ = 0;
  bool any_ = false;
  std::uint16_t expected_ = 0;  // sequence number
  std::atomic<std::uint32_t> reordered_{0};
  std::atomic<std::uint32_t> late_{0};
};

}  // namespace cms
