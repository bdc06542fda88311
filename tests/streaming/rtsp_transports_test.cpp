// The ways on which packets come: IPv6, groups, and TCP in place of UDP that stays silent.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "cms/net/internal/socket_address.h"
#include "cms/streaming/internal/multicast_group.h"
#include "cms/streaming/internal/name_lookup.h"
#include "cms/streaming/mjpeg_http_client.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_url.h"
#include "tests/support/network_namespace.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"

namespace {

using namespace cms;
using test::ConfigFor;
using test::RtspAnswer;
using test::RtspRequest;
using test::RtspTestClient;
using test::ScriptedCamera;
using test::ScriptedRtspServer;
using test::WaitFor;
using testing::HasSubstr;

// --- IPv6 ----------------------------------------------------------------------------------------

bool HostSpeaksV6() {
  std::ifstream addresses("/proc/net/if_inet6");
  std::string first;
  return static_cast<bool>(addresses >> first);
}

TEST(IPv6, ARealCameraIsReceivedOnEachTransport) {
  if (!HostSpeaksV6()) {
    GTEST_SKIP() << "this host has no IPv6";
  }
  const test::RtspCamera camera({"--bind", "::1", "--audio", "pcmu"});
  const std::string url = "rtsp://[::1]:" + std::to_string(camera.Port()) + "/live";
  for (const int transport :
       {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved, cms::kRtspTransportHttp}) {
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(url, transport);
    config.ignoreDelimiters = true;
    ASSERT_EQ(client.SetConfig(&config), 1) << client.GetConnectionStatus().detail;
    ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
    ASSERT_EQ(client.Play(), 1);
    EXPECT_TRUE(WaitFor([&] { return client.Video().size() >= 5 && !client.Audio().empty(); }))
        << transport;
    EXPECT_EQ(client.GetTransport(), transport);
  }
}

TEST(IPv6, PicturesOverHttpAreReceived) {
  if (!HostSpeaksV6()) {
    GTEST_SKIP() << "this host has no IPv6";
  }
  const test::RtspCamera camera({"--bind", "::1", "--http", "0"});
  const auto url = ParseCameraUrl(camera.HttpUrl());
  ASSERT_TRUE(url) << camera.HttpUrl();
  EXPECT_EQ(url->host, "::1");
  MjpegHttpClient client;
  ASSERT_TRUE(client.Configure(*url, "", "", 0));
  ASSERT_EQ(client.Play(), 1) << client.GetConnectionStatus().detail;
  EXPECT_TRUE(WaitFor([&] {
    CMSFrameData data;
    client.GetFrameData(&data, sizeof data);
    return data.videoFrames >= 5;
  }));
  client.StopPlay();
  EXPECT_EQ(ResolveAddress("127.0.0.1"), IpAddress(0x7F000001));
  EXPECT_EQ(ResolveAddress("localhost"), IpAddress(0x7F000001)) << "of both, IPv4's";
  EXPECT_FALSE(ResolveAddress("camera.invalid"));
}

std::vector<IpAddress> TwoAddresses(const std::string&) {
  return {*IpAddress::Parse("127.0.0.2"), *IpAddress::Parse("::1"), IpAddress(0x7F000001)};
}

TEST(IPv6, EachAddressOfANameIsTried) {
  ScriptedRtspServer server;  // on 127.0.0.1 alone
  SetResolver(&TwoAddresses);
  RtspTestClient client;
  cms::stRTSPClientConfig config =
      ConfigFor("rtsp://camera.invalid:" + std::to_string(server.Port()) + "/live",
                cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  SetResolver(nullptr);
}

// --- UDP that does not arrive --------------------------------------------------------------------

void SendWhilePlaying(ScriptedRtspServer& server, RtspTestClient& client,
                      test::H264Packets& packets) {
  EXPECT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    server.SendRtp(0, packets.KeyFrame());
    return client.Video().size() >= 3;
  }));
}

TEST(SilentUdp, GoesOverToTcpAndStaysThere) {
  ScriptedRtspServer server;
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportUdp)));
  EXPECT_EQ(client.GetTransport(), cms::kRtspTransportUdp);
  EXPECT_TRUE(WaitFor([&] { return client.GetTransport() == cms::kRtspTransportInterleaved; }));
  EXPECT_TRUE(WaitFor(
      [&] { return client.GetConnectionStatus().state == cms::ConnectionState::kPlaying; }));
  EXPECT_EQ(server.Count("TEARDOWN"), 1u);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("UDP"));
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kNone);
  test::H264Packets packets;
  SendWhilePlaying(server, client, packets);
  server.CloseConnections();
  EXPECT_TRUE(WaitFor([&] { return server.Connections().size() == 3 && server.Playing() == 1; }));
  EXPECT_THAT(server.Requests("SETUP").back().Header("Transport"), HasSubstr("interleaved"));
}

TEST(SilentUdp, IsLeftAloneOncePacketsCame) {
  ScriptedRtspServer server;
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportUdp)));
  test::H264Packets packets;
  SendWhilePlaying(server, client, packets);
  std::this_thread::sleep_for(std::chrono::milliseconds(3'500));
  EXPECT_EQ(server.Connections().size(), 1u);
  EXPECT_EQ(client.GetTransport(), cms::kRtspTransportUdp);
}

TEST(SilentUdp, ACameraThatRefusesUdpIsAskedForTcpAtOnce) {
  ScriptedRtspServer server({.udp = false});
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportUdp);
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  EXPECT_EQ(client.GetTransport(), cms::kRtspTransportInterleaved);
}

// --- Groups --------------------------------------------------------------------------------------

TEST(Multicast, IsWhatTheConnectionLinesName) {
  EXPECT_EQ(MulticastOf("v=0\r\nc=IN IP4 239.1.2.3/16\r\n"), IpAddress::Parse("239.1.2.3"));
  EXPECT_EQ(MulticastOf("c=IN IP4 0.0.0.0\nm=video 0 RTP/AVP 96\nc=IN IP6 FF15::101/3"),
            IpAddress::Parse("ff15::101"));
  for (const char* none :
       {"", "c=IN IP4 192.0.2.1/127", "c=IN IP4 camera", "i=c=IN IP4 239.1.2.3"}) {
    EXPECT_FALSE(MulticastOf(none)) << none;
  }
}

// A camera that sends to a group, on the loopback interface.
class GroupCamera {
 public:
  static constexpr std::uint16_t kPort = 21'000;

  explicit GroupCamera(const std::string& group) : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    to_.sin_family = AF_INET;
    inet_pton(AF_INET, group.c_str(), &to_.sin_addr);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(socket_, reinterpret_cast<const sockaddr*>(&own), sizeof own);
    setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_IF, &own.sin_addr, sizeof own.sin_addr);
  }
  ~GroupCamera() { close(socket_); }
  GroupCamera(const GroupCamera&) = delete;
  GroupCamera& operator=(const GroupCamera&) = delete;

  bool Send(const std::vector<std::string>& packets) {
    to_.sin_port = htons(kPort);
    bool sent = true;
    for (const std::string& packet : packets) {
      sent = sendto(socket_, packet.data(), packet.size(), 0,
                    reinterpret_cast<const sockaddr*>(&to_), sizeof to_) > 0 &&
             sent;
    }
    return sent;
  }

 private:
  const int socket_;
  sockaddr_in to_{};
};

TEST(Multicast, IsJoinedWhereTheDescriptionOrTheUserWantsIt) {
  for (const bool described : {true, false}) {
    const std::string group = described ? "239.255.71.1" : "239.255.71.2";
    const std::string video =
        "m=video 21000 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
    ScriptedRtspServer server(
        {.sdp = "v=0\r\nc=IN IP4 " + (described ? group + "/1" : "0.0.0.0") + "\r\n" + video});
    server.On("SETUP", [&](const RtspRequest& r) {
      return test::RtspResponse(
          r, 200, "OK",
          {{"Session", "3BA1C0DE"},
           {"Transport", "RTP/AVP;multicast;ttl=1" +
                             (described ? "" : ";destination=" + group + ";port=21000-21001")}});
    });
    RtspTestClient clients[2];  // two that watch on one host
    for (RtspTestClient& client : clients) {
      cms::stRTSPClientConfig config = ConfigFor(
          server.Url(), described ? cms::kRtspTransportUdp : cms::kRtspTransportMulticast);
      client.SetConfig(&config);
      if (client.OpenStream() == 0 && client.Fault() == cms::ConnectionFault::kOutOfResources) {
        GTEST_SKIP() << client.GetConnectionStatus().detail;
      }
      ASSERT_EQ(client.Play(), 1) << client.GetConnectionStatus().detail;
      EXPECT_EQ(client.GetTransport(), cms::kRtspTransportMulticast);
    }
    EXPECT_EQ(server.Requests("SETUP")[0].Header("Transport"), "RTP/AVP;multicast");
    GroupCamera camera(group);
    test::H264Packets packets;
    EXPECT_TRUE(WaitFor([&] {
      camera.Send(packets.Picture());
      camera.Send(packets.KeyFrame());
      return clients[0].Video().size() >= 3 && clients[1].Video().size() >= 3;
    }));
  }
}

// The loopback interface carries no group of IPv6.
TEST(Multicast, GroupsOfIPv6AreJoinedForTheirSendersAlone) {
  const auto body = [] {
    ASSERT_EQ(test::RunShell("ip link add a0 type veth peer name a1 && ip link set a0 up &&"
                             "ip link set a1 up && ip addr add fd00::1/64 dev a0 nodad &&"
                             "ip addr add fd00::2/64 dev a0 nodad")
                  .status,
              0);
    const IpAddress own = *IpAddress::Parse("fd00::1");
    const MulticastGroup group{*IpAddress::Parse("ff15::4711:1"), 21'100, 21'101, 1};
    _RTSPSUBSESSION_CONFIG config;
    const StreamFailure failure = JoinMulticast(group, own, std::array{own}, config);
    ASSERT_FALSE(failure) << failure.text;
    EXPECT_EQ(config.clientRtpPort, 21'100);
    const int interface = static_cast<int>(if_nametoindex("a0"));
    std::vector<int> senders;
    for (const char* const from : {"fd00::2", "fd00::1"}) {  // a stranger first
      senders.push_back(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      const SocketAddress local(*IpAddress::Parse(from), 0);
      ASSERT_EQ(bind(senders.back(), local.Pointer(), local.size), 0);
      setsockopt(senders.back(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &interface, sizeof interface);
    }
    for (const auto& [receiver, port] : {std::pair{config.rtpSocket, group.rtpPort},
                                         std::pair{config.rtcpSocket, group.rtcpPort}}) {
      const SocketAddress to(group.address, port);
      for (const int sender : senders) {
        EXPECT_EQ(
            sendto(sender, sender == senders.back() ? "own" : "odd", 3, 0, to.Pointer(), to.size),
            3);
      }
      pollfd waited{receiver, POLLIN, 0};
      ASSERT_EQ(poll(&waited, 1, 5'000), 1);
      char text[8] = "";
      EXPECT_EQ(recv(receiver, text, sizeof text, MSG_DONTWAIT), 3);
      EXPECT_STREQ(text, "own");
      EXPECT_LT(recv(receiver, text, sizeof text, MSG_DONTWAIT), 0);
    }
    for (const int each : {senders[0], senders[1], config.rtpSocket, config.rtcpSocket}) {
      close(each);
    }
  };
  std::string reason;
  if (!test::InNetworkNamespace(body, reason)) {
    GTEST_SKIP() << reason;
  }
}

TEST(Multicast, ACameraThatOnlyDescribesItIsReceivedAlone) {
  ScriptedRtspServer server({.sdp = "v=0\r\nc=IN IP4 239.255.71.3/1\r\nm=video 0 RTP/AVP 96\r\n"
                                    "a=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n"});
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportUdp)));
  EXPECT_EQ(client.GetTransport(), cms::kRtspTransportUdp);
  test::H264Packets packets;
  SendWhilePlaying(server, client, packets);
}

}  // namespace
