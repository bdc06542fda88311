#include "cms/streaming/internal/rtp_gate.h"

#include <gtest/gtest.h>

#include <string>

#include "cms/streaming/simple_rtp_processer.h"
#include "tests/support/rtsp_message.h"

namespace {

constexpr std::uint32_t kCamera = 77;

class RtpGateTest : public testing::Test {
 protected:
  RtpGateTest() { gate_.Start(96, true); }

  std::string Admit(const std::string& packet) {
    const auto admitted =
        gate_.Admit({reinterpret_cast<const std::uint8_t*>(packet.data()), packet.size()});
    return {admitted.begin(), admitted.end()};
  }

  static std::string Packet(std::uint16_t sequence, std::uint8_t type = 96,
                            std::uint32_t source = kCamera) {
    return test::RtpText(
        {.payloadType = type, .sequence = sequence, .timestamp = 9000, .ssrc = source}, "payload");
  }

  cms::RtpGate gate_;
};

TEST_F(RtpGateTest, StrangersPacketsDoNotComeThrough) {
  EXPECT_EQ(Admit(Packet(10)), Packet(10));
  const std::string stun = std::string("\0\1\0\10\x21\x12\xa4\x42", 8) + std::string(20, 'x');
  const std::string report = "\x81\xc8" + Packet(0).substr(2) + std::string(20, 'r');
  for (const std::string& stranger :
       {stun, report, Packet(11, 97, 5), Packet(11).substr(0, 11), std::string()}) {
    EXPECT_EQ(Admit(stranger), "");
  }
  EXPECT_EQ(Admit(Packet(11)), Packet(11));
}

TEST_F(RtpGateTest, PacketsOfTheSameSenderKeepTheirPlaceWithoutTheirPayload) {
  EXPECT_EQ(Admit(Packet(65535)), Packet(65535));
  // A maker's own packet under the number of the packet before it has no place.
  EXPECT_EQ(Admit(Packet(65535, 109)), "");
  // One that has a number of its own leaves no hole: the depacketizer counts it, and no more.
  const std::string place = Admit(Packet(0, 13));
  ASSERT_EQ(place.size(), 13u);
  SimpleRTPProcesser processer;
  for (std::string packet : {Packet(65535), place, Packet(1)}) {
    processer.ProcessData(packet.data(), static_cast<int>(packet.size()));
  }
  EXPECT_EQ(processer.GetLastSeqNum(), 1);
  EXPECT_EQ(processer.GetMissingPacketCount(), 0u);
  EXPECT_EQ(Admit(Packet(1)), Packet(1));
}

TEST_F(RtpGateTest, AnotherTypeThanTheDescribedOneCountsUntilThatComes) {
  EXPECT_EQ(Admit(Packet(1, 72)), "") << "RTCP is never the stream";
  EXPECT_EQ(Admit(Packet(1, 98)), Packet(1, 98));
  EXPECT_EQ(Admit(Packet(1, 99)), "");
  EXPECT_EQ(Admit(Packet(2, 98)), Packet(2, 98));
  EXPECT_EQ(Admit(Packet(3, 96)), Packet(3, 96));
  EXPECT_EQ(Admit(Packet(9, 98)), "");
  gate_.Start(65535, true);  // nothing described
  EXPECT_EQ(Admit(Packet(1, 98)), Packet(1, 98));
  EXPECT_EQ(Admit(Packet(9, 96)), "");
}

TEST_F(RtpGateTest, DoubledDatagramsAreDroppedAndRestartsAreNot) {
  for (std::uint16_t round = 0; round < 3; ++round) {
    for (std::uint16_t i = 0; i < 100; ++i) {
      const auto sequence = static_cast<std::uint16_t>(65500 + 100 * round + i);
      EXPECT_NE(Admit(Packet(sequence)), "");
      EXPECT_EQ(Admit(Packet(sequence)), "");
      if (i > 90) {
        EXPECT_EQ(Admit(Packet(static_cast<std::uint16_t>(sequence - 90))), "") << "late";
      }
    }
  }
  // The same number means another packet when anything else differs.
  EXPECT_NE(Admit(Packet(263, 96, kCamera + 1)), "");
  EXPECT_NE(Admit(Packet(263, 96, kCamera)), "");
  gate_.Start(96, false);
  EXPECT_NE(Admit(Packet(5)), "");
  EXPECT_NE(Admit(Packet(5)), "") << "TCP doubles nothing";
}

}  // namespace
