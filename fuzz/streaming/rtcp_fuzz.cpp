// RTCP from the network: whatever arrives, a report has its fixed size and names the first sender.
#include <algorithm>
#include <cstring>

#include "cms/runtime/clock.h"
#include "cms/streaming/rtcp_instance.h"
#include "fuzz/support/check.h"

namespace {

class FuzzClock : public cms::Clock {
 public:
  std::uint64_t TickMilliseconds() const override { return now += 2001; }
  std::int64_t WallSeconds() const override { return 0; }
  mutable std::uint64_t now = 1;
};

class Statistics : public cms::RTCPStatistics {
 public:
  std::uint16_t LastSequence() const override { return 0; }
  std::uint8_t FractionLost() const override { return 0; }
  std::uint32_t CumulativeLost() const override { return 0; }
  void ResetFraction() override {}
};

int Send(void* context, const unsigned char* packet, int length) {
  CHECK(length == 56 && packet[0] == 0x81 && std::memcmp(packet + 8, packet + 36, 4) == 0);
  auto* first = static_cast<std::uint32_t*>(context);
  std::uint32_t sender = 0;
  std::memcpy(&sender, packet + 8, 4);
  CHECK(sender != 0xffffffffu && (*first == 0xffffffffu || *first == sender));
  *first = sender;
  return length;
}

}  // namespace

// The input is a row of packets, each with its length in two bytes in front.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzClock clock;
  cms::ReplaceClock(&clock);
  Statistics statistics;
  std::uint32_t first = 0xffffffffu;
  RTCPInstance instance;
  _RTCP_CONFIG config;
  config.transportMode = cms::kRTCPInterleaved;
  config.send = Send;
  config.sendContext = &first;
  config.statistics = &statistics;
  CHECK(instance.SetConfig(config) == 1 && instance.Play() == 1);
  while (size >= 2) {
    const std::size_t length = std::min(size - 2, std::size_t{data[0]} << 8 | data[1]);
    instance.RTPOverRTSPAddPacket(data + 2, static_cast<int>(length));
    data += 2 + length;
    size -= 2 + length;
    CHECK(instance.RTCPProcessNB() == 0);
  }
  return 0;
}
