// On a frame's way from the socket to the client nothing is allocated.
#include <gtest/gtest.h>

#include "cms/streaming/rtsp_client.h"
#include "tests/allocation/allocation_count.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace {

class ReceiveAllocation : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, ReceiveAllocation,
                         testing::Values(kRtspTransportUdp, kRtspTransportInterleaved));

TEST_P(ReceiveAllocation, NothingIsAllocatedPerPacketOrFrame) {
  test::ScriptedRtspServer server;
  CMSRTSPClient client;
  client.AllocChannelData(1);
  stRTSPClientConfig config = test::ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  ASSERT_EQ(client.Play(), 1);
  test::H264Packets packets;
  CMSFrameData data;
  std::uint16_t sound = 0;  // a number that came before would be a doubled datagram
  const auto sendUntil = [&](std::uint64_t frames) {
    return test::WaitFor([&] {
      server.SendRtp(0, packets.Picture());
      server.SendRtp(0, packets.KeyFrame(5'000));
      server.SendRtp(
          1, test::RtpPacket({.payload_type = 0, .sequence = ++sound}, std::string(160, 'a')));
      client.GetFrameData(&data, sizeof data);
      return data.videoFrames >= frames;
    });
  };
  ASSERT_TRUE(sendUntil(10));  // the threads' own scratch areas exist from here on
  const long before = test::Allocations();
  ASSERT_TRUE(sendUntil(500));
  EXPECT_EQ(test::Allocations(), before);
  EXPECT_GT(data.audioFrames, 100u);
}

}  // namespace
