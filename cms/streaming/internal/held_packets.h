// HeldPackets: what a stream sends before its owner is ready to take it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "cms/runtime/clock.h"

namespace cms {

// A camera sends as soon as it has answered PLAY, a key picture first, and the next may be seconds
// away. For half a second from the first packet on they are kept, then all are given up, as older
// pictures are nothing to begin with. Once for an object. The receiving thread's.
class HeldPackets {
 public:
  void Hold(std::span<const std::uint8_t> packet, std::size_t mostBytes) {
    if (over_) {
      return;
    }
    const std::uint64_t now = TickMilliseconds();
    since_ = sizes_.empty() ? now : since_;
    over_ = now - since_ > kLongestMs || packet.size() + bytes_.size() > mostBytes;
    if (over_) {
      GiveUp();
      return;
    }
    bytes_.insert(bytes_.end(), packet.begin(), packet.end());
    sizes_.push_back(packet.size());
  }

  bool IsEmpty() const { return sizes_.empty(); }

  // Calls `take` with each packet, unless their time is over.
  template <typename Take>
  void Release(Take take) {
    if (TickMilliseconds() - since_ <= kLongestMs) {
      std::span<const std::uint8_t> left(bytes_);
      for (const std::size_t size : sizes_) {
        take(left.first(size));
        left = left.subspan(size);
      }
    }
    over_ = true;
    GiveUp();
  }

 private:
  static constexpr std::uint64_t kLongestMs = 500;

  void GiveUp() {
    std::vector<std::uint8_t>().swap(bytes_);
    std::vector<std::size_t>().swap(sizes_);
  }

  std::vector<std::uint8_t> bytes_;
  std::vector<std::size_t> sizes_;
  std::uint64_t since_ = 0;
  bool over_ = false;
};

}  // namespace cms
