// What the RTP fuzz targets share: the input as packets, and the promises about each frame.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "cms/streaming/rtp_processer.h"

namespace fuzz {

using Input = std::span<const std::uint8_t>;

// Takes bytes off the front of the input; zeros when it is used up.
inline std::uint8_t TakeByte(Input& input) {
  if (input.empty()) {
    return 0;
  }
  const std::uint8_t byte = input[0];
  input = input.subspan(1);
  return byte;
}

// A block of its exact size, behind a 16-bit length that is cut to what is left.
inline std::vector<std::uint8_t> TakeBlock(Input& input) {
  const auto announced = static_cast<std::size_t>(TakeByte(input)) << 8 | TakeByte(input);
  const Input block = input.first(std::min(announced, input.size()));
  input = input.subspan(block.size());
  return {block.begin(), block.end()};
}

// Uses the room around the frame as it is promised.
inline void CheckFrame(void* context, void* frame, int length) {
  auto* bytes = static_cast<std::uint8_t*>(frame);
  if (length < RTPProcesserBase::kMinFrameLength || length > RTPProcesserBase::kFrameCapacity ||
      !std::all_of(bytes + length, bytes + length + RTPProcesserBase::kTailRoom,
                   [](std::uint8_t byte) { return byte == 0; })) {
    std::abort();
  }
  std::memset(bytes - RTPProcesserBase::kFrontRoom, 0xEE, RTPProcesserBase::kFrontRoom);
  int type = 0;
  static_cast<RTPProcesserBase*>(context)->GetFrameData(frame, &length, &type);
  if (type < 1 || type > 3) {
    std::abort();
  }
}

// Feeds the rest of the input as packets. With `inOrder` they get consecutive sequence numbers, so
// that frames are put together and not only discarded.
inline void FeedPackets(RTPProcesserBase& processer, Input input, bool inOrder) {
  processer.SetFrameCallback(&CheckFrame, &processer);
  std::uint16_t sequence = 0;
  while (!input.empty()) {
    std::vector<std::uint8_t> packet = TakeBlock(input);
    if (inOrder && packet.size() >= 4) {
      ++sequence;
      packet[2] = static_cast<std::uint8_t>(sequence >> 8);
      packet[3] = static_cast<std::uint8_t>(sequence);
    }
    processer.ProcessData(packet.data(), static_cast<int>(packet.size()));
  }
}

}  // namespace fuzz
