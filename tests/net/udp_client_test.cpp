#include "cms/net/udp_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/runtime/clock.h"
#include "tests/net/loopback.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using test::Descriptor;
using test::SendTo;
using test::Sink;
using test::UdpClient;
using test::WaitFor;

constexpr int kUdpGroup = 200;

class UdpClientTest : public testing::Test {
 protected:
  void TearDown() override { StopEachClientNBManager(); }

  Descriptor peer_ = test::BoundSocket(SOCK_DGRAM);
};

TEST_F(UdpClientTest, QueueModeDropsLongDatagramsAndCallbackModePassesThemWhole) {
  const std::string large = test::Pattern(60'000);
  UdpClient queued;
  ASSERT_TRUE(queued.Start(kUdpGroup));
  SendTo(peer_, queued.BoundPort(), large);
  SendTo(peer_, queued.BoundPort(), "");
  SendTo(peer_, queued.BoundPort(), std::string(2048, 'f'));
  SendTo(peer_, queued.BoundPort(), "end");
  std::vector<std::string> got;
  char buffer[2048];
  EXPECT_TRUE(WaitFor([&] {
    const int length = queued.OnRecv(buffer, sizeof buffer);
    if (length > 0) {
      got.emplace_back(buffer, static_cast<std::size_t>(length));
    }
    return !got.empty() && got.back() == "end";
  }));
  EXPECT_EQ(got, (std::vector<std::string>{std::string(2048, 'f'), "end"}));

  Sink sink;
  UdpClient called(test::UdpInto(sink));
  ASSERT_TRUE(called.Start(kUdpGroup));
  for (int i = 0; i < 40; ++i) {
    SendTo(peer_, called.BoundPort(), std::to_string(i) + ",");
  }
  SendTo(peer_, called.BoundPort(), large);
  EXPECT_TRUE(WaitFor([&] { return sink.Calls() == 41; }));
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    expected += std::to_string(i) + ",";
  }
  EXPECT_TRUE(sink.Bytes() == expected + large);
}

TEST_F(UdpClientTest, AFullQueueDropsTheNewestAndReadingGoesOn) {
  _UDPCLIENT_CONFIG config;
  config.recvQueueDepth = 4;
  UdpClient client(config);
  ASSERT_NE(client.OnStartUDPClient(), 0);
  for (int i = 0; i < 10; ++i) {
    SendTo(peer_, client.BoundPort(), std::to_string(i));
  }
  EXPECT_TRUE(WaitFor([&] { return client.UDPClientRecv() == 10; }));
  EXPECT_EQ(client.UDPClientRecv(), 0);
  std::string got;
  char buffer[2048];
  for (int i = 0; i < 4; ++i) {
    got.append(buffer, static_cast<std::size_t>(client.OnRecvNB(buffer, sizeof buffer)));
  }
  EXPECT_EQ(got, "01");  // of four slots one separates, and one is the empty first
  EXPECT_EQ(client.OnRecvNB(buffer, 100), 0);
}

TEST_F(UdpClientTest, SendsAreCutBoundedAndGoToTheRemoteAddress) {
  _UDPCLIENT_CONFIG config;
  config.sendQueueDepth = 4;
  config.sendDatagramSize = 10;
  config.remoteAddress = INADDR_LOOPBACK;
  config.remotePort = test::PortOf(peer_);
  UdpClient client(config);
  EXPECT_EQ(client.Send("too early"), 0);
  ASSERT_NE(client.OnStartUDPClient(), 0);
  EXPECT_EQ(client.Send("0123456789abc"), 10);
  EXPECT_EQ(client.Send(""), 0);
  EXPECT_EQ(client.Send("second"), 6);
  EXPECT_EQ(client.Send("full"), 0);
  ASSERT_NE(EachClientGroupTable::Instance().Register(&client, kUdpGroup), 0);
  char got[32];
  EXPECT_EQ(recv(peer_, got, sizeof got, 0), 10);
  EXPECT_EQ(recv(peer_, got, sizeof got, 0), 6);
  EXPECT_TRUE(WaitFor([&] { return client.Send("third") == 5; }));
  EXPECT_EQ(recv(peer_, got, sizeof got, 0), 5);
  EXPECT_NE(client.OnStopUDPClient(), 0);
  EXPECT_EQ(client.Send("too late"), 0);
}

// Every look at this clock takes ten milliseconds.
class SlowClock final : public cms::Clock {
 public:
  std::uint64_t TickMilliseconds() const override { return now_.fetch_add(10); }
  std::int64_t WallSeconds() const override { return 0; }

 private:
  mutable std::atomic<std::uint64_t> now_{0};
};

TEST_F(UdpClientTest, ASendStepEndsBefore31Milliseconds) {
  _UDPCLIENT_CONFIG config;
  config.remoteAddress = INADDR_LOOPBACK;
  config.remotePort = test::PortOf(peer_);
  UdpClient client(config);
  ASSERT_NE(client.OnStartUDPClient(), 0);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(client.Send("x"), 1);
  }
  const SlowClock clock;
  cms::ReplaceClock(&clock);
  EXPECT_EQ(client.UDPClientSend(), 3);
  cms::ReplaceClock(nullptr);
  EXPECT_EQ(client.UDPClientSend(), 17);
}

TEST_F(UdpClientTest, AFailedSendIsReportedAndStepsWithoutASocketFail) {
  _UDPCLIENT_CONFIG config;
  config.remoteAddress = INADDR_LOOPBACK;
  config.remotePort = 0;  // nobody can be sent to there
  UdpClient client(config);
  EXPECT_EQ(client.UDPClientRecv(), -1);
  EXPECT_EQ(client.UDPClientSend(), -1);
  EXPECT_EQ(client.SetRecvSocketBuffer(100'000), 0);
  ASSERT_NE(client.OnStartUDPClient(), 0);
  EXPECT_EQ(client.Send("x"), 1);
  EXPECT_EQ(client.UDPClientSend(), -1);
  EXPECT_EQ(client.LastSocketError(), EINVAL);
  EXPECT_EQ(client.SetRecvSocketBuffer(100'000), 1);
  EXPECT_EQ(client.SetSendSocketBuffer(100'000), 1);
  int size = 0;
  socklen_t length = sizeof size;
  getsockopt(client.Socket(), SOL_SOCKET, SO_RCVBUF, &size, &length);
  EXPECT_GE(size, 100'000);
}

TEST_F(UdpClientTest, ABusyPortFailsAndAnAdoptedSocketIsKept) {
  const std::size_t before = test::OpenDescriptors();
  {
    _UDPCLIENT_CONFIG config;
    config.localPort = test::PortOf(peer_);
    UdpClient refused(config);
    EXPECT_EQ(refused.OnStartUDPClient(), 0);
    EXPECT_EQ(refused.LastSocketError(), EADDRINUSE);

    Sink sink;
    UdpClient client(test::UdpInto(sink));
    Descriptor bound = test::BoundSocket(SOCK_DGRAM);
    const std::uint16_t port = test::PortOf(bound);
    client.AdoptSocket(bound.Release());
    ASSERT_TRUE(client.Start(kUdpGroup));
    EXPECT_EQ(client.BoundPort(), port);
    SendTo(peer_, port, "adopted");
    EXPECT_TRUE(WaitFor([&] { return sink.Bytes() == "adopted"; }));
    client.OnStopUDPClient();
    ASSERT_NE(client.OnStartUDPClient(), 0);  // a socket of its own now
    client.AdoptSocket(test::BoundSocket(SOCK_DGRAM).Release());
  }
  StopEachClientNBManager();
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(UdpClientTest, ThreadsOfItsOwnTakeOnlyTheConfiguredPeer) {
  Sink sink;
  _UDPCLIENT_CONFIG config = test::UdpInto(sink);
  config.remoteAddress = INADDR_LOOPBACK;
  config.remotePort = test::PortOf(peer_);
  UdpClient client(config);
  ASSERT_NE(client.OnStartUDPClient(), 0);
  client.RunOwnThreads();
  const Descriptor stranger = test::BoundSocket(SOCK_DGRAM);
  SendTo(stranger, client.BoundPort(), "stranger");
  SendTo(peer_, client.BoundPort(), "peer");
  EXPECT_TRUE(WaitFor([&] { return sink.Calls() > 0; }));
  EXPECT_EQ(sink.Bytes(), "peer");
  client.Send("back");
  char got[8];
  EXPECT_EQ(recv(peer_, got, sizeof got, 0), 4);
  EXPECT_NE(client.OnClose(), 0);
}

}  // namespace
