#include "cms/streaming/internal/reorder_window.h"

#include <algorithm>
#include <new>

#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtp_packet.h"

namespace cms {
namespace {

constexpr std::uint16_t kFurthestBehind = 100;  // MAX_MISORDER of RFC 3550, appendix A.1

}  // namespace

void ReorderWindow::Take(Bytes packet) {
  if (packet.size() < RtpPacket::kFixedHeader) {
    return;
  }
  const std::uint16_t sequence = RtpPacket(packet).Sequence();
  const std::uint32_t source = RtpPacket(packet).Source();
  if (source != source_ || !any_) [[unlikely]] {
    StartAnew(source, sequence);
  } else if (sequence != expected_) [[unlikely]] {
    if (static_cast<std::uint16_t>(expected_ - sequence) <= kFurthestBehind) {
      late_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    while (held_ > 0 && Ahead(sequence) >= kPackets) {
      SkipMissing();
    }
    if (sequence != expected_ && (Ahead(sequence) >= kPackets || !Hold(packet, sequence))) {
      StartAnew(source, sequence);
    }
  }
  if (sequence == expected_) [[likely]] {
    PassOn(packet);
    PassOnReady();
  }
  if (held_ > 0) [[unlikely]] {
    SkipOverdue();
  }
}

void ReorderWindow::StartAnew(std::uint32_t source, std::uint16_t sequence) {
  while (held_ > 0) {
    SkipMissing();
  }
  any_ = true;
  source_ = source;
  expected_ = sequence;
}

void ReorderWindow::PassOn(Bytes packet) {
  ++expected_;
  sink_.OnPacketInOrder(packet);
}

void ReorderWindow::PassOnReady() {
  while (held_ > 0 && SlotOf(expected_).used) {
    Slot& slot = SlotOf(expected_);
    slot.used = false;
    --held_;
    PassOn({BytesOf(expected_), slot.length});
  }
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
  PassOnReady();
}

// The packet behind the missing one came first of those that wait for it, or nearly so.
void ReorderWindow::SkipOverdue() {
  const std::uint64_t now = TickMilliseconds();
  while (held_ > 0) {
    std::uint16_t next = expected_;
    while (!SlotOf(next).used) {
      ++next;
    }
    if (now - SlotOf(next).arrival < kMilliseconds) {
      return;
    }
    SkipMissing();
  }
}

}  // namespace cms
