// The broadcasting TCP server: whom it sends to, and that no peer is in another's way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "cms/exports/tcp_server_exports.h"
#include "tests/net/loopback.h"
#include "tests/support/no_more_threads.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using test::Descriptor;
using test::WaitFor;

constexpr std::uint32_t kMe = INADDR_LOOPBACK;

std::atomic<int> accepted;

void OnAccept(const sockaddr_in* peer, int length) {
  EXPECT_EQ(length, static_cast<int>(sizeof *peer));
  EXPECT_EQ(peer->sin_family, AF_INET);
  ++accepted;
}

void OnReceive(void* context, const char* data, int length) {
  static_cast<test::Sink*>(context)->Add(data, length);
}

class TcpServerTest : public testing::Test {
 protected:
  void SetUp() override { Use(cms::tTcpServerConfig()); }
  void TearDown() override { DestroyTcpServer(server_); }

  void Use(cms::tTcpServerConfig config) {
    DestroyTcpServer(server_);
    config_ = config;
    config_.acceptCallback = OnAccept;
    accepted = 0;
    server_ = CreateTcpServer(&config_);
    ASSERT_EQ(StartTcpServer(server_), 1);
    ASSERT_NE(config_.localPort, 0);
  }
  // Connected from 127.0.0.<host> and known to the server.
  Descriptor Peer(int host = 1) {
    const int before = TotalClientCnt(server_);
    Descriptor made = Connected(host);
    EXPECT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == before + 1; }));
    return made;
  }
  Descriptor Connected(int host) {
    Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in from = test::Loopback(0);
    from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + static_cast<unsigned>(host) - 1);
    bind(made, reinterpret_cast<const sockaddr*>(&from), sizeof from);
    const timeval limit{20, 0};
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const sockaddr_in to = test::Loopback(config_.localPort);
    EXPECT_EQ(connect(made, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    return made;
  }
  int Send(const std::string& text) {
    return SendTcpData(server_, text.data(), static_cast<int>(text.size()));
  }
  static std::string Read(int descriptor, std::size_t size) {
    std::string bytes(size, '\0');
    const ssize_t got = recv(descriptor, bytes.data(), size, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  static bool HasData(int descriptor) {
    char byte = 0;
    return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

  cms::tTcpServerConfig config_;
  CTcpServer* server_ = nullptr;
};

TEST_F(TcpServerTest, OnlyEnabledAddressesGetData) {
  const Descriptor first = Peer(1);
  const Descriptor second = Peer(2);
  EXPECT_EQ(accepted, 2);
  EXPECT_EQ(Send("to nobody"), 0);
  EXPECT_EQ(EnableSendData(server_, kMe, 1), 1);
  EXPECT_EQ(Send("one"), 3);
  EXPECT_EQ(Read(first, 3), "one");
  EnableSendData(server_, kMe + 1, 1);
  EnableSendData(server_, kMe, 0);
  EXPECT_EQ(Send("two"), 3);
  EXPECT_EQ(Read(second, 3), "two");
  EXPECT_FALSE(HasData(first));
  EXPECT_EQ(SendTcpData(server_, nullptr, 3), 0);
  EXPECT_EQ(SendTcpData(server_, "x", 0), 0);
}

// An address stands for all peers behind it, and every coming and going there disables it.
TEST_F(TcpServerTest, SeveralPeersBehindOneAddress) {
  const Descriptor first = Peer();
  EnableSendData(server_, kMe, 1);
  Descriptor second = Peer();
  EXPECT_EQ(Send("none"), 0);
  EnableSendData(server_, kMe, 1);
  EXPECT_EQ(Send("both"), 4);
  EXPECT_EQ(Read(first, 4), "both");
  EXPECT_EQ(Read(second, 4), "both");
  second.Close();
  EXPECT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 1; }));
  EXPECT_EQ(Send("none"), 0);
  EnableSendData(server_, kMe, 1);
  EXPECT_EQ(Send("left"), 4);
  EXPECT_EQ(Read(first, 4), "left");
  EXPECT_FALSE(HasData(first));
}

TEST_F(TcpServerTest, ReceivedBytesReachTheCallback) {
  test::Sink sink;
  cms::tTcpServerConfig config;
  config.recvCallback = OnReceive;
  config.recvContext = &sink;
  config.recvFrameSize = 100;
  Use(config);
  const Descriptor peer = Peer();
  const std::string sent = test::Pattern(10000);
  send(peer, sent.data(), sent.size(), MSG_NOSIGNAL);
  EXPECT_TRUE(WaitFor([&] { return sink.Size() == sent.size(); }));
  EXPECT_EQ(sink.Bytes(), sent);
  EXPECT_GE(sink.Calls(), 100);
  shutdown(peer, SHUT_WR);
  EXPECT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 0; }));
}

TEST_F(TcpServerTest, WithoutACallbackReceivedBytesAreThrownAway) {
  const Descriptor peer = Peer();
  const std::string sent = test::Pattern(1 << 20);
  EXPECT_EQ(send(peer, sent.data(), sent.size(), MSG_NOSIGNAL), 1 << 20);
  EnableSendData(server_, kMe, 1);
  EXPECT_EQ(Send("still here"), 10);
  EXPECT_EQ(Read(peer, 10), "still here");
}

// What a slow peer does not take is dropped for it in whole blocks; the others get everything.
TEST_F(TcpServerTest, APeerThatDoesNotReadDelaysNobody) {
  cms::tTcpServerConfig config;
  config.recvFrameSize = 4096;
  config.recvQueueDepth = 64;  // 256 KiB
  Use(config);
  const Descriptor stuck = Peer(2);
  const Descriptor reader = Peer(1);  // the last one: its result is told
  EnableSendData(server_, kMe + 1, 1);
  EnableSendData(server_, kMe, 1);
  EXPECT_EQ(Send(std::string(256 * 1024 + 1, 'x')), 0) << "longer than the queue";
  constexpr int kBlocks = 3000;
  constexpr std::size_t kSize = 10000;
  for (int i = 0; i < kBlocks; ++i) {
    std::string block(kSize, static_cast<char>('a' + i % 26));
    ASSERT_EQ(Send(block), static_cast<int>(kSize));
    ASSERT_EQ(Read(reader, kSize), block);
  }
  // The stuck one finds whole blocks, and far fewer than were sent.
  std::size_t got = 0;
  for (std::string block; HasData(stuck); ++got) {
    block = Read(stuck, kSize);
    ASSERT_EQ(block.size(), kSize);
    ASSERT_EQ(block, std::string(kSize, block[0])) << "a torn block";
    if (!HasData(stuck)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  EXPECT_GT(got, 10u);
  EXPECT_LT(got, kBlocks - 100u);
}

TEST_F(TcpServerTest, StopsWhileSendingToPeersThatDoNotRead) {
  std::vector<Descriptor> peers;
  for (int i = 0; i < 30; ++i) {
    peers.push_back(Peer());
  }
  std::atomic<bool> sending = true;
  std::thread sender([&] {
    const std::string block(1000, 's');
    while (sending) {
      EnableSendData(server_, kMe, 1);
      Send(block);
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  StopTcpServer(server_);
  EXPECT_EQ(TotalClientCnt(server_), 0);
  sending = false;
  sender.join();
  ASSERT_EQ(StartTcpServer(server_), 1);
  EXPECT_EQ(StartTcpServer(server_), 0);
  const Descriptor again = Peer();
  EXPECT_EQ(Send("forgotten"), 0);
  EnableSendData(server_, kMe, 1);
  EXPECT_EQ(Send("again"), 5);
  EXPECT_EQ(Read(again, 5), "again");
}

// Peers that vanish in the middle of a block, with and without a reset.
TEST_F(TcpServerTest, PeersThatVanish) {
  cms::tTcpServerConfig config;
  config.recvFrameSize = 1 << 20;
  Use(config);
  const std::size_t before = test::OpenDescriptors();
  const std::string block = test::Pattern(20 << 20);
  for (int i = 0; i < 10; ++i) {
    Descriptor peer = Peer();
    EnableSendData(server_, kMe, 1);
    ASSERT_EQ(Send(block), static_cast<int>(block.size()));
    EXPECT_EQ(Read(peer, 1000).size(), 1000u);
    if (i % 3 == 0) {
      const linger hard{1, 0};
      setsockopt(peer, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    } else if (i % 3 == 1) {
      shutdown(peer, SHUT_WR);  // goes on reading nothing: the sender is blocked in the block
      ASSERT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 0; }));
    }
    peer.Close();
    EXPECT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 0; }));
  }
  EXPECT_TRUE(WaitFor([&] { return test::OpenDescriptors() <= before; }));
}

TEST_F(TcpServerTest, AFloodOfConnectionsAndNoDescriptorsLeft) {
  std::atomic<bool> flooding = true;
  std::vector<std::thread> attackers;
  for (int i = 0; i < 3; ++i) {
    attackers.emplace_back([&] {
      const sockaddr_in to = test::Loopback(config_.localPort);
      while (flooding) {
        const Descriptor one(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        connect(one, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        send(one, "garbage", 7, MSG_NOSIGNAL);
      }
    });
  }
  EXPECT_TRUE(WaitFor([] { return accepted > 500; }));
  {
    const test::DescriptorLimit limit(static_cast<rlim_t>(test::OpenDescriptors()) + 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  flooding = false;
  for (std::thread& attacker : attackers) {
    attacker.join();
  }
  ASSERT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 0; }));
  // Connections of the flood may still come out of the backlog in front of this one.
  const Descriptor peer = Connected(3);
  EXPECT_TRUE(WaitFor([&] {
    EnableSendData(server_, kMe + 2, 1);
    return Send("well") == 4;
  }));
  EXPECT_EQ(Read(peer, 4), "well");
}

TEST_F(TcpServerTest, MorePeersThanAllowedWaitUntilOneLeaves) {
  cms::tTcpServerConfig config;
  config.maximumConnections = 2;
  Use(config);
  Descriptor first = Peer(1);
  const Descriptor second = Peer(2);
  const sockaddr_in to = test::Loopback(config_.localPort);
  const Descriptor third(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(third, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(TotalClientCnt(server_), 2);
  EXPECT_EQ(accepted, 2);
  first.Close();
  EXPECT_TRUE(WaitFor([] { return accepted == 3; }));
  EXPECT_TRUE(WaitFor([&] { return TotalClientCnt(server_) == 2; }));
  StopTcpServer(server_);  // although it is full
  EXPECT_EQ(Read(third, 1), "");
}

TEST_F(TcpServerTest, WithoutThreadsPeersAreTurnedAwayAndLaterServed) {
  const std::size_t before = test::OpenDescriptors();
  {
    const test::NoMoreThreads refused;
    const sockaddr_in to = test::Loopback(config_.localPort);
    const Descriptor peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    EXPECT_EQ(Read(peer, 1), "");  // closed
    EXPECT_EQ(TotalClientCnt(server_), 0);
    StopTcpServer(server_);
    EXPECT_EQ(StartTcpServer(server_), 0);
  }
  ASSERT_EQ(StartTcpServer(server_), 1);
  EXPECT_EQ(test::OpenDescriptors(), before);
  Peer();
}

TEST_F(TcpServerTest, IdleConnectionsCostNothing) {
  std::vector<Descriptor> peers;
  for (int i = 0; i < 20; ++i) {
    peers.push_back(Peer());
  }
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  getrusage(RUSAGE_SELF, &after);
  const auto micros = [](const timeval& t) { return t.tv_sec * 1000000L + t.tv_usec; };
  EXPECT_LT(micros(after.ru_utime) + micros(after.ru_stime) - micros(before.ru_utime) -
                micros(before.ru_stime),
            100000);
}

TEST(TcpServerExports, RefuseNull) {
  EXPECT_EQ(CreateTcpServer(nullptr), nullptr);
  EXPECT_EQ(StartTcpServer(nullptr), 0);
  EXPECT_EQ(SendTcpData(nullptr, "x", 1), 0);
  EXPECT_EQ(EnableSendData(nullptr, kMe, 1), 0);
  EXPECT_EQ(TotalClientCnt(nullptr), 0);
  StopTcpServer(nullptr);
  DestroyTcpServer(nullptr);
}

}  // namespace
