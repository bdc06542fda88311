// Once the largest picture was seen, pictures are put together and packets in order without memory
// being allocated.
#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "cms/streaming/internal/access_unit_assembler.h"
#include "cms/streaming/internal/reorder_window.h"
#include "tests/allocation/allocation_count.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"

namespace {

// Receives each second pair of packets in the wrong order.
class Receiver final : cms::AccessUnitSink {
 public:
  void Feed(test::RtpPackets& packets) {
    for (std::size_t i = 0; i < packets.size(); ++i) {
      const std::size_t at = i % 4 == 2 && i + 1 < packets.size() ? i + 1 : i % 4 == 3 ? i - 1 : i;
      for (auto next = window_.Put(packets[at]); !next.empty(); next = window_.Next()) {
        assembler_.Take({next.subspan(12), next[7], (next[1] & 0x80) != 0, first_});
        first_ = false;
      }
    }
  }

  int pictures = 0;

 private:
  void OnAccessUnit(const cms::AccessUnit& unit) override { pictures += unit.decodable ? 1 : 0; }

  bool first_ = true;
  cms::ReorderWindow window_;
  cms::AccessUnitAssembler assembler_{*this, {}};
};

TEST(AccessUnitAllocation, NothingIsAllocatedPerPacketOrUnit) {
  test::RtpPacketizer rtp;
  std::vector<test::RtpPackets> rounds(4);
  const auto clip = test::EncodeClip({.frames = 20, .gop = 5, .slices = 4, .noise = true});
  for (auto& round : rounds) {
    for (const auto& frame : clip) {
      for (auto& packet : rtp.H264(frame.data, true)) {
        round.push_back(std::move(packet));
      }
    }
  }
  std::thread([&] {
    pthread_setname_np(pthread_self(), "cms-recv-test");
    const long none = test::Allocations();
    Receiver receiver;
    receiver.Feed(rounds[0]);
    receiver.Feed(rounds[1]);
    receiver.Feed(rounds[2]);
    const long before = test::Allocations();
    EXPECT_GT(before, none) << "the counter sees this thread";
    receiver.Feed(rounds[3]);
    EXPECT_EQ(test::Allocations(), before);
    EXPECT_EQ(receiver.pictures, 80);
  }).join();
}

}  // namespace
