#include "cms/streaming/internal/reorder_window.h"

#include <algorithm>
#include <new>
#include <utility>

#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtp_packet.h"

namespace cms {
namespace {

constexpr std::uint16_t kFurthestBehind = 100;  // MAX_MISORDER of RFC 3550, appendix A.1

}  // namespace

Bytes ReorderWindow::Put(Bytes packet) {
  arrived_ = packet.size() >= RtpPacket::kFixedHeader ? packet : Bytes();
  return Next();
}

Bytes ReorderWindow::Next() {
  while (true) {
    if (held_ > 0 && SlotOf(expected_).used) [[unlikely]] {
      return Release();
    }
    if (arrived_.empty()) {
      if (!IsOverdue()) [[likely]] {
        return {};
      }
      SkipMissing();
      continue;
    }
    const std::uint16_t sequence = RtpPacket(arrived_).Sequence();
    if (sequence == expected_ && any_) [[likely]] {
      ++expected_;
      return std::exchange(arrived_, {});
    }
    if (any_ && static_cast<std::uint16_t>(expected_ - sequence) <= kFurthestBehind) {
      late_.fetch_add(1, std::memory_order_relaxed);
      arrived_ = {};
    } else if (any_ && Ahead(sequence) < kPackets && Hold(arrived_, sequence)) {
      arrived_ = {};
    } else if (held_ > 0) {
      SkipMissing();  // what waits goes first
    } else {
      any_ = true;
      expected_ = sequence;
    }
  }
}

Bytes ReorderWindow::Release() {
  Slot& slot = SlotOf(expected_);
  slot.used = false;
  --held_;
  return {BytesOf(expected_++), slot.length};
}

// False when the packet cannot wait.
bool ReorderWindow::Hold(Bytes packet, std::uint16_t sequence) {
  if (!memory_) {
    memory_.reset(new (std::nothrow) std::uint8_t[kPackets * kLongestHeld]);
  }
  if (!memory_ || packet.size() > kLongestHeld) {
    return false;
  }
  Slot& slot = SlotOf(sequence);
  if (slot.used) {
    late_.fetch_add(1, std::memory_order_relaxed);  // a repetition
    return true;
  }
  std::copy(packet.begin(), packet.end(), BytesOf(sequence));
  slot = {true, TickMilliseconds(), packet.size()};
  ++held_;
  reordered_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void ReorderWindow::SkipMissing() {
  while (!SlotOf(expected_).used) {
    ++expected_;
  }
}

// The packet behind the missing one came first of those that wait for it, or nearly so.
bool ReorderWindow::IsOverdue() {
  if (held_ == 0) [[likely]] {
    return false;
  }
  std::uint16_t next = expected_;
  while (!SlotOf(next).used) {
    ++next;
  }
  return TickMilliseconds() - SlotOf(next).arrival >= kMilliseconds;
}

}  // namespace cms
