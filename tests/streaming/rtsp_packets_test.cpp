// What comes with the packets of a stream, and what goes back.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cms/streaming/rtsp_client.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

using test::ConfigFor;
using test::H264Packets;
using test::RtspTestClient;
using test::ScriptedRtspServer;
using test::WaitFor;

namespace {

constexpr char kTalking[] =
    "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n"
    "m=audio 0 RTP/AVP 0\r\na=sendonly\r\na=control:trackID=2\r\n";

// A sender report of 28 bytes without report blocks.
std::string PacketSenderReport(const std::string& ssrc) {
  return std::string("\x80\xc8\0\6", 4) + ssrc + std::string(20, '\0');
}

unsigned LostPackets(const RtspTestClient& client) {
  cms::CMSFrameData data;
  client.GetFrameData(&data, sizeof data);
  return static_cast<unsigned>(data.lostPackets);
}

// One datagram to the client's port from an address of its own.
class Stranger {
 public:
  explicit Stranger(const char* address) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, address, &local.sin_addr);
    bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local);
  }
  ~Stranger() { close(socket_); }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  void Send(std::uint16_t port, const std::string& datagram) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(socket_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
  }

 private:
  int socket_;
};

std::uint16_t ClientPort(const ScriptedRtspServer& server) {
  unsigned port = 0;
  const std::string transport = server.Requests("SETUP").at(0).Header("Transport");
  std::sscanf(transport.c_str() + transport.find("client_port="), "client_port=%u", &port);
  return static_cast<std::uint16_t>(port);
}

TEST(RtspPackets, TheCamerasReportsOnTheTalkChannelCostNoPicture) {
  ScriptedRtspServer server({.sdp = kTalking});
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  config.talkBack = true;
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  client.Play();
  H264Packets packets;
  const std::string ssrc = "TALK";
  server.SendRtp(0, packets.Picture());
  for (int i = 0; i < 50; ++i) {
    server.SendRtp(0, packets.KeyFrame());
    server.SendRtcp(2, PacketSenderReport(ssrc));
    server.SendRtp(0, packets.Picture());
    server.SendRtp(2, test::RtpText({.payloadType = 0}, std::string(160, 's')));
    server.SendRaw(test::InterleavedBlock(6, "metadata that nobody asked for"));
  }
  server.SendRtp(0, packets.Picture());
  EXPECT_TRUE(WaitFor([&] { return client.Video().size() >= 100; })) << client.Video().size();
  EXPECT_EQ(LostPackets(client), 0u);
  // The report is answered on the talk stream's own channel.
  EXPECT_TRUE(WaitFor([&] {
    for (const std::string& block : server.InterleavedReceived()) {
      if (block[1] == 3 && block.substr(4 + 8, 4) == ssrc) {
        return true;
      }
    }
    return false;
  }));
}

TEST(RtspPackets, StrangersAndDoubledDatagramsCostNoPicture) {
  ScriptedRtspServer server;
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportUdp)));
  const std::uint16_t port = ClientPort(server);
  const Stranger far("127.0.0.2");
  const Stranger near("127.0.0.1");
  H264Packets packets;
  server.SendRtp(0, packets.Picture());
  // Not faster than the client's socket takes them, whatever its buffer.
  for (std::size_t i = 0; i < 40; ++i) {
    auto frame = packets.KeyFrame();
    // What a stranger could make look like the stream's own.
    far.Send(port, test::RtpText({.marker = true, .sequence = 40000}, "\x41 no picture of ours"));
    near.Send(port, std::string("\0\1\0\0", 4) + std::string(16, 'x'));
    near.Send(port, PacketSenderReport("\x0c\xa3\xe8\xa0"));
    near.Send(port, test::RtpText({.payloadType = 111, .sequence = 30000}, "another type"));
    frame.insert(frame.begin() + 1, frame[0]);
    frame.push_back(frame[2]);
    server.SendRtp(0, frame);
    ASSERT_TRUE(WaitFor([&] { return client.Video().size() == i + 1; })) << i;
  }
  EXPECT_EQ(LostPackets(client), 0u);
}

TEST(RtspPackets, OverUdpTheWayIsOpenedFromTheClientsSide) {
  const int camera = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_TRUE(test::BindLoopback(camera, 0));
  const std::string port = std::to_string(test::LocalPort(camera));
  ScriptedRtspServer server({.sdp = "v=0\r\nm=video 0 RTP/AVP 26\r\n"});
  server.On("SETUP", [&](const test::RtspRequest& r) {
    return test::WithHeader(server.GoodAnswer(r), "Transport",
                            r.Header("Transport") + ";source=127.0.0.1;server_port=" + port);
  });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportUdp);
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  sockaddr_in from{};
  socklen_t size = sizeof from;
  char packet[64];
  ASSERT_TRUE(WaitFor([&] {
    return recvfrom(camera, packet, sizeof packet, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                    &size) == 12;
  }));
  EXPECT_EQ(ntohs(from.sin_port), ClientPort(server));
  close(camera);
}

class ReportsOver : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, ReportsOver,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved));

TEST_P(ReportsOver, FollowTheCamerasFirstAndBeginWithoutALoss) {
  ScriptedRtspServer server;
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), GetParam())));
  H264Packets packets;
  const auto sendFrame = [&] {
    server.SendRtp(0, packets.KeyFrame());
    server.SendRtp(0, packets.Picture());
  };
  ASSERT_TRUE(WaitFor([&] {
    sendFrame();
    return client.Video().size() > 3;
  }));
  // Over UDP an empty one has opened the way.
  const std::size_t opening = GetParam() == cms::kRtspTransportUdp ? 1 : 0;
  ASSERT_TRUE(WaitFor([&] { return server.RtcpReceived(0) >= opening; }));
  const auto reports = [&] {
    return server.RtcpReceived(0) - opening + server.InterleavedReceived().size();
  };
  EXPECT_EQ(reports(), 0u) << "before the camera's own";
  const std::string ssrc = "\x0c\xa3\xe8\xa0";
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitFor([&] {
    sendFrame();
    server.SendRtcp(0, PacketSenderReport(ssrc));
    return reports() >= 2;
  }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
  if (GetParam() == cms::kRtspTransportInterleaved) {
    const std::string report = server.InterleavedReceived()[0];
    ASSERT_EQ(report.size(), 4u + 56);
    EXPECT_EQ(report[1], 1);
    EXPECT_EQ(report.substr(4, 4), std::string("\x81\xc9\0\7", 4));
    EXPECT_EQ(report.substr(4 + 8, 4), ssrc);
    EXPECT_EQ(report[4 + 12], 0) << "nothing was lost";
  }
}

TEST(RtspPackets, WhatComesWhileNobodyPlaysIsNotLost) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  H264Packets packets;
  for (std::size_t frames = 3; frames <= 9; frames += 3) {
    client.Play();
    ASSERT_TRUE(WaitFor([&] {
      server.SendRtp(0, packets.Picture());
      server.SendRtp(0, packets.KeyFrame());
      return client.Video().size() >= frames;
    }));
    client.StopPlay();
    for (int i = 0; i < 20; ++i) {
      server.SendRtp(0, packets.Picture());
    }
  }
  EXPECT_EQ(LostPackets(client), 0u);
}

// The NAL units of an Annex B frame, one RTP packet each.
std::vector<std::string> RtspPacketsOf(const std::vector<std::uint8_t>& frame,
                                       std::uint16_t* sequence) {
  const std::string bytes(frame.begin(), frame.end());
  const std::string code("\0\0\1", 3);
  std::vector<std::string> packets;
  for (std::size_t at = bytes.find(code); at != std::string::npos;) {
    const std::size_t next = bytes.find(code, at + 3);
    std::string unit = bytes.substr(at + 3, next == std::string::npos ? next : next - at - 3);
    while (next != std::string::npos && unit.ends_with('\0')) {
      unit.pop_back();  // of a 4-byte start code
    }
    packets.push_back(
        test::RtpText({.marker = next == std::string::npos, .sequence = (*sequence)++}, unit));
    at = next;
  }
  return packets;
}

TEST(RtspPackets, ThePictureSizeIsKnownFromTheFirstKeyFrame) {
  const auto clip = test::EncodeClip(
      {.width = 640, .height = 360, .frames = 4, .gop = 2, .profile = test::ClipProfile::kHigh});
  ScriptedRtspServer server;
  RtspTestClient client;  // nobody decodes
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportInterleaved)));
  std::uint16_t sequence = 1;
  unsigned width = 0;
  unsigned height = 0;
  client.GetWidthAndHeight(0, &width, &height);
  EXPECT_EQ(width, 0u);
  ASSERT_TRUE(WaitFor([&] {
    for (const auto& frame : clip) {
      server.SendRtp(0, RtspPacketsOf(frame.data, &sequence));
    }
    client.GetWidthAndHeight(0, &width, &height);
    return width > 0;
  }));
  EXPECT_EQ(width, 640u);
  EXPECT_EQ(height, 360u);
}

}  // namespace
