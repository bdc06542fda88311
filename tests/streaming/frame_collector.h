// Collects what a depacketizer delivers, and uses the room around each frame as an owner does.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "cms/streaming/rtp_processer.h"
#include "tests/support/rtp_packetizer.h"

namespace test {

class FrameCollector {
 public:
  explicit FrameCollector(RTPProcesserBase& processer) : processer_(processer) {
    processer.SetFrameCallback(&FrameCollector::OnFrame, this);
  }

  // Each packet in a block of its exact size, so that a read past its end is caught.
  int Feed(const RtpPacket& packet) {
    RtpPacket copy(packet);
    copy.shrink_to_fit();
    return processer_.ProcessData(copy.data(), static_cast<int>(copy.size()));
  }
  int Feed(const RtpPackets& packets) {
    int framesCompleted = 0;
    for (const RtpPacket& packet : packets) {
      framesCompleted += Feed(packet);
    }
    return framesCompleted;
  }

  std::vector<std::vector<std::uint8_t>> frames;
  std::vector<int> types;
  std::vector<const std::uint8_t*> places;

 private:
  static void OnFrame(void* context, void* frame, int length) {
    auto& self = *static_cast<FrameCollector*>(context);
    auto* bytes = static_cast<std::uint8_t*>(frame);
    int type = 5;
    self.processer_.GetFrameData(frame, &length, &type);
    self.types.push_back(type);
    self.places.push_back(bytes);
    // The promises: writable in front, zeros behind, and neither disturbs a frame.
    std::memset(bytes - RTPProcesserBase::kFrontRoom, 0xEE, RTPProcesserBase::kFrontRoom);
    const bool zeroed = std::all_of(bytes + length, bytes + length + RTPProcesserBase::kTailRoom,
                                    [](std::uint8_t byte) { return byte == 0; });
    self.frames.emplace_back();
    if (zeroed) {
      self.frames.back().assign(bytes, bytes + length);
    }
  }

  RTPProcesserBase& processer_;
};

}  // namespace test
