// On a frame's way from the socket to the client nothing is allocated.
#include <gtest/gtest.h>

#include "cms/streaming/rtsp_client.h"
#include "tests/allocation/allocation_count.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace {

class ReceiveAllocation : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, ReceiveAllocation,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved));

TEST_P(ReceiveAllocation, NothingIsAllocatedPerPacketOrFrame) {
  test::ScriptedRtspServer server;
  CMSRTSPClient client;
  client.AllocChannelData(1);
  ASSERT_TRUE(test::Plays(client, test::ConfigFor(server.Url(), GetParam())));
  test::H264Packets packets;
  cms::CMSFrameData data;
  std::uint16_t sound = 0;  // a number that came before would be a doubled datagram
  const auto sendUntil = [&](std::uint64_t frames) {
    return test::WaitFor([&] {
      server.SendRtp(0, packets.Picture());
      server.SendRtp(0, packets.KeyFrame(5'000));
      server.SendRtp(1,
                     test::RtpText({.payloadType = 0, .sequence = ++sound}, std::string(160, 'a')));
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

TEST_P(ReceiveAllocation, NothingIsAllocatedPerPacketOrPictureOfH265) {
  test::ScriptedRtspServer server(
      {.sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\na=control:trackID=0\r\n"});
  CMSRTSPClient client;
  client.AllocChannelData(1);
  ASSERT_TRUE(test::Plays(client, test::ConfigFor(server.Url(), GetParam())));
  const auto clip = test::EncodeClip(
      {.codec = test::ClipCodec::kH265, .frames = 20, .gop = 5, .slices = 2, .noise = true});
  test::RtpPacketizer rtp;
  cms::CMSFrameData data;
  std::uint64_t sent = 0;
  const auto sendRounds = [&](int rounds) {
    for (int i = 0; i < rounds; ++i) {
      for (const test::EncodedFrame& frame : clip) {
        std::vector<std::string> packets;
        for (const test::RtpPacket& packet : rtp.H265(frame.data)) {
          packets.emplace_back(packet.begin(), packet.end());
        }
        server.SendRtp(0, packets);
        ++sent;
        if (!test::WaitFor([&] {  // over UDP not faster than a socket takes them
              client.GetFrameData(&data, sizeof data);
              return data.videoFrames >= sent;
            })) {
          return false;
        }
      }
    }
    return true;
  };
  ASSERT_TRUE(sendRounds(2));
  const long before = test::Allocations();
  ASSERT_TRUE(sendRounds(5));
  EXPECT_EQ(test::Allocations(), before);
}

}  // namespace
