#include "cms/net/client_group.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/net/internal/io_group.h"
#include "cms/net/rtcp_step.h"
#include "tests/net/acting_clients.h"
#include "tests/net/loopback.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using std::chrono::milliseconds;
using test::ActingClient;
using test::ActingStep;
using test::Descriptor;
using test::Listener;
using test::PortOf;
using test::SendTo;
using test::Sink;
using test::TcpClient;
using test::UdpClient;
using test::WaitFor;

constexpr int kGroup = 300;

EachClientGroupTable& Table() {
  return EachClientGroupTable::Instance();
}

class ClientGroupTest : public testing::Test {
 protected:
  void TearDown() override { StopEachClientNBManager(); }

  std::uint64_t ReceivePasses() { return Table().Find(kGroup)->Receiver().Passes(); }
  std::uint64_t SendPasses() { return Table().Find(kGroup)->Sender().Passes(); }

  // Sends one datagram and tells whether it is served within a while.
  bool IsServed(const UdpClient& client, const Sink& sink, milliseconds within) {
    const int before = sink.Calls();
    SendTo(peer_, client.BoundPort(), "x");
    return WaitFor([&] { return sink.Calls() > before; }, within);
  }

  Listener listener_;
  Descriptor peer_ = test::BoundSocket(SOCK_DGRAM);
};

TEST_F(ClientGroupTest, SixtyFourSocketsAreServedAndAWaitingOneGetsAFreePlace) {
  Sink sink;
  std::vector<std::unique_ptr<UdpClient>> clients;
  for (int i = 0; i < 66; ++i) {
    clients.push_back(std::make_unique<UdpClient>(test::UdpInto(sink)));
    ASSERT_TRUE(clients.back()->Start(kGroup));
  }
  for (int i = 0; i < 64; ++i) {
    EXPECT_TRUE(IsServed(*clients[static_cast<std::size_t>(i)], sink, std::chrono::seconds(30)));
  }
  EXPECT_FALSE(IsServed(*clients[64], sink, milliseconds(50)));
  // A TCP client comes before all UDP clients and takes the place of the last of them.
  Sink tcpSink;
  {
    TcpClient tcp(test::TcpInto(tcpSink));
    ASSERT_TRUE(tcp.Start(listener_.Port(), kGroup));
    const Descriptor tcpPeer = listener_.Accept();
    send(tcpPeer, "y", 1, 0);
    EXPECT_TRUE(WaitFor([&] { return tcpSink.Calls() == 1; }));
    EXPECT_FALSE(IsServed(*clients[63], sink, milliseconds(50)));
  }
  clients.erase(clients.begin(), clients.begin() + 2);
  for (const auto& client : clients) {
    EXPECT_TRUE(IsServed(*client, sink, std::chrono::seconds(30)));
  }
}

TEST_F(ClientGroupTest, RegisteringTwiceServesOnceAndAnotherKeyMovesTheClient) {
  Sink sink;
  UdpClient client(test::UdpInto(sink));
  ASSERT_TRUE(client.Start(kGroup));
  ASSERT_NE(Table().Register(&client, kGroup), 0);
  ASSERT_NE(Table().Register(&client, kGroup + 1), 0);
  for (int i = 1; i <= 20; ++i) {
    SendTo(peer_, client.BoundPort(), "x");
    EXPECT_TRUE(WaitFor([&] { return sink.Calls() == i; }));
  }
  // A new socket under the same registration is found by registering again.
  Table().Unregister(&client);
  EXPECT_FALSE(IsServed(client, sink, milliseconds(50)));
  ASSERT_NE(Table().Register(&client, kGroup), 0);
  EXPECT_TRUE(WaitFor([&] { return sink.Calls() == 21; }));
  client.AdoptSocket(test::BoundSocket(SOCK_DGRAM).Release());
  ASSERT_NE(Table().Register(&client, kGroup), 0);
  EXPECT_TRUE(IsServed(client, sink, std::chrono::seconds(30)));
}

TEST_F(ClientGroupTest, NothingToDoMeansNoWakeUps) {
  std::vector<std::unique_ptr<UdpClient>> clients;
  std::vector<std::unique_ptr<TcpClient>> connections;
  std::vector<Descriptor> peers;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<UdpClient>());
    ASSERT_TRUE(clients.back()->Start(kGroup));
    connections.push_back(std::make_unique<TcpClient>());
    ASSERT_TRUE(connections.back()->Start(listener_.Port(), kGroup));
    peers.push_back(listener_.Accept());
  }
  std::this_thread::sleep_for(milliseconds(50));
  const std::uint64_t received = ReceivePasses();
  const std::uint64_t sent = SendPasses();
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_EQ(ReceivePasses(), received);
  EXPECT_EQ(SendPasses(), sent);
}

TEST_F(ClientGroupTest, ATrickleIsTakenInBatches) {
  Sink datagrams;
  UdpClient client(test::UdpInto(datagrams));
  ASSERT_TRUE(client.Start(kGroup));
  Sink stream;
  TcpClient connection(test::TcpInto(stream));
  ASSERT_TRUE(connection.Start(listener_.Port(), kGroup));
  const Descriptor peer = listener_.Accept();
  const std::uint16_t port = client.BoundPort();
  const auto expectBatches = [&](const auto& sendOne, const auto& arrived, auto interval) {
    std::this_thread::sleep_for(milliseconds(20));
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t before = ReceivePasses();
    for (int i = 0; i < 2000; ++i) {
      sendOne();
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    EXPECT_TRUE(WaitFor(arrived));
    const std::uint64_t passes = ReceivePasses() - before;
    const auto intervals = (std::chrono::steady_clock::now() - start) / interval;
    EXPECT_LE(passes, static_cast<std::uint64_t>(intervals) + 3);
  };
  const auto expectDatagramBatches = [&](int all, auto interval) {
    expectBatches([&] { SendTo(peer_, port, "x"); }, [&] { return datagrams.Calls() == all; },
                  interval);
  };
  expectDatagramBatches(2000, cms::SocketEndpoint::kShortRest);
  int granted = 0;
  socklen_t size = sizeof granted;
  client.SetRecvSocketBuffer(4 * 1024 * 1024);
  getsockopt(client.Socket(), SOL_SOCKET, SO_RCVBUF, &granted, &size);
  if (granted >= 4 * 1024 * 1024) {  // asks for a right that not all have
    expectDatagramBatches(4000, cms::SocketEndpoint::kLongRest);
  }
  expectBatches([&] { EXPECT_EQ(send(peer, "x", 1, MSG_NOSIGNAL), 1); },
                [&] { return stream.Bytes().size() == 2000; }, cms::SocketEndpoint::kLongRest);
}

TEST_F(ClientGroupTest, CallbacksUnregisterThemselvesAndFreeOthers) {
  // Each of the two would be served next in the same pass, had the other not freed it.
  std::atomic<int> freed{0};
  std::unique_ptr<ActingClient> first;
  std::unique_ptr<ActingClient> second;
  const auto freeOther = [&](std::unique_ptr<ActingClient>& other) {
    freed += other != nullptr ? 1 : 0;
    other.reset();
  };
  ActingClient self([&] { self.OnStopUDPClient(); });
  first = std::make_unique<ActingClient>([&] { freeOther(second); });
  second = std::make_unique<ActingClient>([&] { freeOther(first); });
  for (ActingClient* client : {&self, first.get(), second.get()}) {
    ASSERT_NE(client->OnStartUDPClient(), 0);
    for (int i = 0; i < 5; ++i) {
      SendTo(peer_, client->BoundPort(), "x");
    }
  }
  // Registered from inside a callback, so that no pass comes in between.
  ActingStep step([&] {
    for (ActingClient* client : {&self, first.get(), second.get()}) {
      EXPECT_NE(Table().Register(client, kGroup), 0);
    }
    return -1;
  });
  ASSERT_NE(Table().Register(&step, kGroup), 0);
  EXPECT_TRUE(WaitFor([&] { return self.calls == 1 && freed == 1; }));
  StopEachClientNBManager();
  EXPECT_EQ(self.calls, 1);
  EXPECT_EQ(first->calls, 5);
}

TEST_F(ClientGroupTest, UnregisteringWaitsForTheRunningStep) {
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};
  ActingClient client([&] {
    entered = true;
    std::this_thread::sleep_for(milliseconds(100));
    left = true;
  });
  ASSERT_TRUE(client.Start(kGroup));
  SendTo(peer_, client.BoundPort(), "x");
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  Table().Unregister(&client);
  EXPECT_TRUE(left);
}

TEST_F(ClientGroupTest, RtcpStepsAreCalledUntilTheyRefuseOrLeave) {
  ActingStep lasting([] { return 0; });
  ActingStep refusing([] { return -1; });
  ActingStep leaving([&] {
    Table().Unregister(&leaving);
    return 0;
  });
  const auto start =
      std::chrono::steady_clock::now();  // the first pass may run while this thread waits
  for (ActingStep* step : {&lasting, &refusing, &leaving}) {
    ASSERT_NE(Table().Register(step, kGroup), 0);
    ASSERT_NE(Table().Register(step, kGroup), 0);
  }
  EXPECT_TRUE(WaitFor([&] { return lasting.calls >= 6; }));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 5 * EachClientSendManager::kRtcpInterval - milliseconds(5));
  EXPECT_EQ(refusing.calls, 1);
  EXPECT_EQ(leaving.calls, 1);
  Table().Unregister(&lasting);
  std::this_thread::sleep_for(milliseconds(60));
  const int calls = lasting.calls;
  const std::uint64_t passes = SendPasses();
  std::this_thread::sleep_for(milliseconds(150));
  EXPECT_EQ(lasting.calls, calls);
  EXPECT_EQ(SendPasses(), passes);
}

// Every pair of threads that can meet in a deadlock does: receive callbacks, RTCP steps and owners
// register and unregister the same group's clients all the time.
TEST_F(ClientGroupTest, EverybodyUnregistersSomebody) {
  UdpClient toggled[3];
  for (UdpClient& client : toggled) {
    ASSERT_TRUE(client.Start(kGroup));
  }
  const auto toggle = [&](int which) {
    Table().Unregister(&toggled[which]);
    Table().Register(&toggled[which], kGroup);
  };
  ActingClient client([&] { toggle(0); });
  ASSERT_TRUE(client.Start(kGroup));
  ActingStep step([&] {
    toggle(1);
    return 0;
  });
  ASSERT_NE(Table().Register(&step, kGroup), 0);
  const std::uint16_t port = client.BoundPort();
  std::atomic<bool> done{false};
  std::thread owner([&] {
    while (!done) {
      SendTo(peer_, port, "x");
      Table().Unregister(&client);
      Table().Register(&client, kGroup);
    }
  });
  EXPECT_TRUE(WaitFor([&] {
    toggle(2);
    return client.calls >= 200 && step.calls >= 4;
  }));
  done = true;
  owner.join();
  Table().Unregister(&step);
}

TEST_F(ClientGroupTest, ChurnFromManyThreadsLosesAndLeaksNothing) {
  Sink keeperSink;
  UdpClient keeper(test::UdpInto(keeperSink));
  ASSERT_TRUE(keeper.Start(kGroup));
  ActingStep keeperStep([] { return 0; });
  ASSERT_NE(Table().Register(&keeperStep, kGroup + 1), 0);
  const std::size_t before = test::OpenDescriptors();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      const Descriptor sender = test::BoundSocket(SOCK_DGRAM);
      for (int i = 0; i < 100; ++i) {
        Sink sink;
        UdpClient udp(test::UdpInto(sink));
        EXPECT_TRUE(udp.Start(kGroup + i % 2));
        TcpClient tcp;
        ActingStep step([] { return 0; });
        Table().Register(&step, kGroup + t % 2);
        EXPECT_TRUE(tcp.Start(listener_.Port(), static_cast<unsigned>(kGroup)));
        tcp.Send("request");
        SendTo(sender, udp.BoundPort(), "x");
        if (i % 3 != 0) {
          EXPECT_TRUE(WaitFor([&] { return sink.Calls() == 1; }));
        }
        Table().Unregister(&step);
      }
    });
  }
  std::thread server([this] {
    char got[7];
    for (int i = 0; i < 400; ++i) {
      const Descriptor peer = listener_.Accept();
      send(peer, "answer", 6, MSG_NOSIGNAL);
      recv(peer, got, sizeof got, 0);
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  server.join();
  EXPECT_TRUE(IsServed(keeper, keeperSink, std::chrono::seconds(30)));
  EXPECT_EQ(test::OpenDescriptors(), before);
  Table().Unregister(&keeperStep);
}

TEST_F(ClientGroupTest, StoppingEndsEverythingAndGroupsStartAnew) {
  const std::size_t before = test::OpenDescriptors();
  {
    Sink sink;
    UdpClient client(test::UdpInto(sink));
    ASSERT_TRUE(client.Start(kGroup));
    ASSERT_NE(Table().Register(&client, kGroup), 0);
    StopEachClientNBManager();
    EXPECT_EQ(Table().Find(kGroup), nullptr);
    EXPECT_FALSE(IsServed(client, sink, milliseconds(30)));
    EXPECT_EQ(client.Send("nobody takes this"), 17);
    ASSERT_NE(Table().Register(&client, kGroup), 0);
    EXPECT_TRUE(WaitFor([&] { return sink.Calls() == 1; }));
    StopEachClientNBManager();
  }
  StopEachClientNBManager();
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(ClientGroupTest, AnOwnerThatUnregistersWhileStoppingStillWaits) {
  std::atomic<bool> entered{false};
  std::atomic<bool> left{false};
  ActingClient client([&] {
    entered = true;
    std::this_thread::sleep_for(milliseconds(100));
    left = true;
  });
  ASSERT_TRUE(client.Start(kGroup));
  SendTo(peer_, client.BoundPort(), "x");
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  std::thread stopper([] { StopEachClientNBManager(); });
  ASSERT_TRUE(WaitFor([] { return Table().Find(kGroup) == nullptr; }));
  Table().Unregister(&client);
  EXPECT_TRUE(left);
  stopper.join();
}

}  // namespace
