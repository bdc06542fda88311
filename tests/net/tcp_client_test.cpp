#include "cms/net/tcp_client.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/net/internal/io_group.h"
#include "cms/net/manual_tcp_client.h"
#include "cms/runtime/wake_up.h"
#include "tests/net/loopback.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using std::chrono::milliseconds;
using test::Descriptor;
using test::Listener;
using test::Sink;
using test::TcpClient;
using test::WaitFor;

constexpr unsigned kTcpGroup = 100;

class TcpClientTest : public testing::Test {
 protected:
  void TearDown() override { StopEachClientNBManager(); }

  std::uint64_t ReceivePasses() {
    return EachClientGroupTable::Instance().Find(kTcpGroup)->Receiver().Passes();
  }
  std::uint64_t SendPasses() {
    return EachClientGroupTable::Instance().Find(kTcpGroup)->Sender().Passes();
  }

  Listener listener_;
};

void SendAll(int descriptor, const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const auto count = send(descriptor, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    ASSERT_GT(count, 0);
    sent += static_cast<std::size_t>(count);
  }
}

TEST_F(TcpClientTest, QueuedFramesAndCallbackGiveTheSameBytes) {
  const std::string data = test::Pattern(2'000'000);
  Sink sink;
  for (const bool callback : {false, true}) {
    TcpClient client(callback ? test::TcpInto(sink) : tTcpClientParam{});
    ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
    EXPECT_NE(client.IsConnecting(), 0);
    const Descriptor peer = listener_.Accept();
    std::thread sender([&] { SendAll(peer, data); });
    std::string got;
    if (callback) {
      EXPECT_TRUE(WaitFor([&] { return sink.Size() >= data.size(); }));
      got = sink.Bytes();
    } else {
      // Smaller than the data by far, so the queue fills up again and again meanwhile.
      char frame[1024];
      EXPECT_TRUE(WaitFor([&] {
        for (int length; (length = client.OnRecv(frame, sizeof frame)) > 0;) {
          got.append(frame, static_cast<std::size_t>(length));
        }
        return got.size() >= data.size();
      }));
    }
    sender.join();
    EXPECT_TRUE(got == data) << got.size();
  }
}

TEST_F(TcpClientTest, AReadIntoASmallBufferIsCut) {
  TcpClient client;
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  const Descriptor peer = listener_.Accept();
  SendAll(peer, "0123456789");
  char buffer[5] = "????";
  int length = 0;
  EXPECT_TRUE(WaitFor([&] { return (length = client.OnRecv(buffer, 4)) > 0; }));
  EXPECT_EQ(std::string(buffer), "0123");
  EXPECT_EQ(length, 4);
}

TEST_F(TcpClientTest, MegabytesToASlowReaderArriveIntact) {
  const std::string data = test::Pattern(6'000'000);
  TcpClient client;
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  const Descriptor peer = listener_.Accept();
  std::string got;
  std::thread reader([&] {
    std::string block(300'000, '\0');
    while (got.size() < data.size()) {
      std::this_thread::sleep_for(milliseconds(5));  // lets the system's buffers fill up
      const auto count = recv(peer, block.data(), block.size(), 0);
      if (count <= 0) {
        return;
      }
      got.append(block, 0, static_cast<std::size_t>(count));
    }
  });
  std::size_t offered = 0;
  EXPECT_TRUE(WaitFor([&] {
    while (offered < data.size()) {
      const int taken = client.Send(data.substr(offered, 50'000));
      if (taken == 0) {
        return false;
      }
      offered += static_cast<std::size_t>(taken);
    }
    return true;
  }));
  reader.join();
  EXPECT_TRUE(got == data) << got.size();
}

TEST_F(TcpClientTest, TheSendQueueIsBoundedAndNeverLosesWhatItAccepted) {
  tTcpClientParam param;
  param.sendQueueDepth = 4;
  param.sendChunkSize = 8;
  TcpClient client(param);
  EXPECT_EQ(client.Send(std::string(40, 'a')), 31);
  EXPECT_EQ(client.Send("b"), 0);
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  const Descriptor peer = listener_.Accept();
  char got[64];
  EXPECT_EQ(recv(peer, got, 31, MSG_WAITALL), 31);
  EXPECT_EQ(std::string(got, 31), std::string(31, 'a'));
}

TEST_F(TcpClientTest, APeerThatClosedIsToldOnceAndCostsNothing) {
  Sink sink;
  TcpClient client(test::TcpInto(sink));
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  Descriptor peer = listener_.Accept();
  SendAll(peer, "last words");
  peer.Close();
  EXPECT_TRUE(WaitFor([&] { return client.peerClosed > 0; }));
  EXPECT_EQ(sink.Bytes(), "last words");
  // What is sent now meets a reset, which must neither raise a signal nor keep a thread busy.
  client.Send("anyone there?");
  std::this_thread::sleep_for(milliseconds(50));
  client.Send("hello?");
  std::this_thread::sleep_for(milliseconds(50));
  const std::uint64_t received = ReceivePasses();
  const std::uint64_t sent = SendPasses();
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_LE(ReceivePasses() - received, 2u);
  EXPECT_LE(SendPasses() - sent, 2u);
  EXPECT_EQ(client.peerClosed, 1);
  client.OnStopTCPClient(false);
  EXPECT_EQ(client.TCPClientRecv(), 0);  // closed, which is no error
}

TEST_F(TcpClientTest, AResetConnectionIsDropped) {
  TcpClient client;
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  Descriptor peer = listener_.Accept();
  const linger hard{1, 0};
  setsockopt(peer, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  peer.Close();
  EXPECT_TRUE(WaitFor([&] { return client.peerClosed > 0; }));
  EXPECT_EQ(client.LastSocketError(), ECONNRESET);
  // The same object serves a new connection.
  client.OnStopTCPClient(true);
  EXPECT_EQ(client.IsConnecting(), 0);
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  const Descriptor again = listener_.Accept();
  SendAll(again, "x");
  char frame[1024];
  EXPECT_TRUE(WaitFor([&] { return client.OnRecv(frame, sizeof frame) == 1; }));
}

TEST_F(TcpClientTest, AFullQueueIsNotSpunOnAndResumes) {
  tTcpClientParam param;
  param.recvQueueDepth = 4;
  param.recvChunkSize = 100;
  TcpClient client(param);
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  const Descriptor peer = listener_.Accept();
  const std::string data = test::Pattern(50'000);
  SendAll(peer, data);
  EXPECT_TRUE(WaitFor([&] { return ReceivePasses() >= 2 && client.IsDataAvail() != 0; }));
  std::this_thread::sleep_for(milliseconds(50));
  const std::uint64_t passes = ReceivePasses();
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_LE(ReceivePasses() - passes, 1u);
  std::string got;
  char frame[100];
  EXPECT_TRUE(WaitFor([&] {
    const int length = client.OnRecv(frame, sizeof frame);
    got.append(frame, static_cast<std::size_t>(length));
    return got.size() >= data.size();
  }));
  EXPECT_TRUE(got == data);
}

TEST_F(TcpClientTest, StepsWithoutASocketFailAndWithAFullQueueTakeNothing) {
  tTcpClientParam param;
  param.recvQueueDepth = 3;  // room for one frame
  TcpClient client(param);
  EXPECT_EQ(client.TCPClientRecv(), -1);
  EXPECT_EQ(client.TCPClientSend(), -1);
  ASSERT_TRUE(client.Start(listener_.Port(), cms::kNoIoGroup));
  const Descriptor peer = listener_.Accept();
  SendAll(peer, std::string(3000, 'x'));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(client.IsConnecting(), 1);
  EXPECT_EQ(client.TCPClientRecv(), 1024);  // nobody served it before
  EXPECT_EQ(client.TCPClientRecv(), 0);
  EXPECT_EQ(client.Send("ping"), 4);
  EXPECT_EQ(client.TCPClientSend(), 0);
  char got[4];
  EXPECT_EQ(recv(peer, got, 4, MSG_WAITALL), 4);
}

TEST_F(TcpClientTest, ConnectingFailsCleanlyInTimeAndOnCancel) {
  const std::size_t before = test::OpenDescriptors();
  TcpClient client;
  std::uint16_t closedPort = 0;
  {
    const Listener gone;
    closedPort = gone.Port();
  }
  EXPECT_FALSE(client.Start(closedPort, kTcpGroup));
  EXPECT_EQ(client.LastSocketError(), ECONNREFUSED);
  EXPECT_EQ(client.Socket(), -1);
  EXPECT_EQ(test::OpenDescriptors(), before);

  // A port that does not exist is not another one.
  const Listener open;
  EXPECT_EQ(client.OnConnect(INADDR_LOOPBACK, 65536UL + open.Port()), 0);
  EXPECT_EQ(client.LastSocketError(), EINVAL);

  // With its backlog full a listener answers no more connection requests.
  const Listener deaf(0);
  TcpClient filler;
  ASSERT_NE(filler.ConnectSocket(INADDR_LOOPBACK, deaf.Port(), 1000, nullptr), 0);
  EXPECT_EQ(client.ConnectSocket(INADDR_LOOPBACK, deaf.Port(), 50, nullptr), 0);
  EXPECT_EQ(client.LastSocketError(), ETIMEDOUT);
  cms::WakeUp cancel;
  std::thread canceller([&] {
    std::this_thread::sleep_for(milliseconds(50));
    cancel.Signal();
  });
  EXPECT_EQ(client.ConnectSocket(INADDR_LOOPBACK, deaf.Port(), -1, &cancel), 0);
  EXPECT_EQ(client.LastSocketError(), ECANCELED);
  canceller.join();
}

TEST_F(TcpClientTest, WithoutDescriptorsStartingFailsAndLaterWorks) {
  TcpClient client;
  const std::size_t before = test::OpenDescriptors();
  for (int spare = 0; spare < 5; ++spare) {
    bool started = false;
    {
      // Room for nothing, then for the connection and one more of the threads' descriptors a round.
      const test::DescriptorLimit limit(64);
      std::vector<Descriptor> fillers;
      do {
        fillers.emplace_back(dup(0));
      } while (fillers.back() >= 0);
      fillers.resize(fillers.size() - 1 - static_cast<std::size_t>(spare));
      started = client.Start(listener_.Port(), kTcpGroup);
    }
    EXPECT_FALSE(started);
    EXPECT_EQ(client.Socket(), -1);
    EXPECT_EQ(EachClientGroupTable::Instance().Find(kTcpGroup), nullptr);
    EXPECT_EQ(test::OpenDescriptors(), before);
  }
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
}

TEST_F(TcpClientTest, DescriptorsAbove1023Work) {
  const test::DescriptorLimit limit(4000);
  std::vector<Descriptor> fillers;
  while (fillers.empty() || fillers.back() < 1100) {
    fillers.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(fillers.back(), 0);
  }
  Sink sink;
  TcpClient client(test::TcpInto(sink));
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  ASSERT_GT(client.Socket(), 1023);
  const Descriptor peer = listener_.Accept();
  SendAll(peer, "high");
  EXPECT_TRUE(WaitFor([&] { return sink.Bytes() == "high"; }));
  client.Send("low");
  char got[3];
  EXPECT_EQ(recv(peer, got, 3, MSG_WAITALL), 3);
}

TEST_F(TcpClientTest, ManyRoundsLeakNothing) {
  TcpClient keeper;  // keeps the group's threads out of the count
  ASSERT_TRUE(keeper.Start(listener_.Port(), kTcpGroup));
  const Descriptor keeperPeer = listener_.Accept();
  const std::size_t before = test::OpenDescriptors();
  const int rounds = test::kSanitized ? 1500 : 10'000;
  for (int i = 0; i < rounds; ++i) {
    TcpClient client;
    ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
    Descriptor peer = listener_.Accept();
    client.Send("x");
    if (i % 2 == 0) {
      peer.Close();
    }
    client.OnStopTCPClient(i % 3 == 0);
  }
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(TcpClientTest, ThreadsOfItsOwnServeAClientToo) {
  Sink sink;
  TcpClient client(test::TcpInto(sink));
  ASSERT_TRUE(client.Start(listener_.Port(), cms::kNoIoGroup));
  Descriptor peer = listener_.Accept();
  client.RunOwnThreads();
  EXPECT_NE(client.SetRecvThrdPriority(1), 0);
  SendAll(peer, "ping");
  client.Send("pong");
  char got[4];
  EXPECT_EQ(recv(peer, got, 4, MSG_WAITALL), 4);
  EXPECT_TRUE(WaitFor([&] { return sink.Bytes() == "ping"; }));
  peer.Close();
  EXPECT_TRUE(WaitFor([&] { return client.IsConnecting() == 0; }));
  client.OnStopTCPClient(true);
  EXPECT_EQ(client.SetRecvThrdPriority(1), 0);
}

TEST_F(TcpClientTest, ThreadsOfItsOwnRestWhileThereIsNothingToDo) {
  TcpClient tcp;
  ASSERT_TRUE(tcp.Start(listener_.Port(), cms::kNoIoGroup));
  const Descriptor peer = listener_.Accept();
  test::UdpClient udp;
  ASSERT_NE(udp.OnStartUDPClient(), 0);
  tcp.RunOwnThreads();
  udp.RunOwnThreads();
  const auto switches = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
  };
  std::this_thread::sleep_for(milliseconds(50));
  const long before = switches();
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_LT(switches() - before, 50);  // the receivers look every 100 ms
}

TEST_F(TcpClientTest, ReleasingForgetsWhatWasNotRead) {
  TcpClient client;
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  SendAll(listener_.Accept(), "unread");
  ASSERT_TRUE(WaitFor([&] { return client.IsDataAvail() != 0 && client.peerClosed == 1; }));
  client.OnStopTCPClient(true);
  client.OnReleaseMemory();
  char got[1024];
  EXPECT_EQ(client.IsDataAvail(), 0);
  EXPECT_EQ(client.OnRecv(got, sizeof got), 0);
  EXPECT_EQ(client.OnRecv(got, sizeof got), 0);
  ASSERT_NE(client.OnAllocateMemory(), 0);
  ASSERT_TRUE(client.Start(listener_.Port(), kTcpGroup));
  SendAll(listener_.Accept(), "new");
  int length = 0;
  EXPECT_TRUE(WaitFor([&] { return (length = client.OnRecv(got, sizeof got)) != 0; }));
  EXPECT_EQ(std::string(got, static_cast<std::size_t>(length)), "new");
}

TEST_F(TcpClientTest, StoppingAManualClientEndsItsCallsInProgress) {
  const Listener deaf(0);
  TcpClient filler;
  ASSERT_NE(filler.ConnectSocket(INADDR_LOOPBACK, deaf.Port(), 1000, nullptr), 0);
  std::string data(16'000'000, 'x');  // more than the system holds for a peer that does not read
  for (const bool destroys : {false, true}) {
    auto client = std::make_unique<ManualTCPClient>();
    ASSERT_NE(client->OnConnect(INADDR_LOOPBACK, listener_.Port()), 0);
    const Descriptor peer = listener_.Accept();
    std::atomic<int> begun{0};
    std::thread receiving([&, used = client.get()] {
      char got[16];
      ++begun;
      EXPECT_LE(used->OnRecv(got, sizeof got), 0);
    });
    std::thread sending([&, used = client.get()] {
      ++begun;
      EXPECT_EQ(used->OnSend(data.data(), static_cast<int>(data.size())), -1);
    });
    ASSERT_TRUE(WaitFor([&] { return begun == 2; }));
    std::this_thread::sleep_for(milliseconds(50));  // in the call by now, most likely
    if (destroys) {
      client.reset();
    } else {
      client->OnStopTCPClient(true);
    }
    receiving.join();
    sending.join();
    if (!destroys) {
      std::thread connecting(
          [&] { EXPECT_EQ(client->OnConnect(INADDR_LOOPBACK, deaf.Port()), 0); });
      std::this_thread::sleep_for(milliseconds(50));
      client->OnStopTCPClient(true);
      connecting.join();
      EXPECT_NE(client->OnConnect(INADDR_LOOPBACK, listener_.Port()), 0);
    }
  }
}

TEST_F(TcpClientTest, AManualClientWorksOnTheBlockingSocket) {
  ManualTCPClient client;
  EXPECT_EQ(client.OnStartTCPClient(INADDR_LOOPBACK, 1, kTcpGroup), 0);
  ASSERT_NE(client.OnStartTCPClient(INADDR_LOOPBACK, listener_.Port(), kTcpGroup), 0);
  Descriptor peer = listener_.Accept();
  std::thread answer([&] {
    std::string got(1'000'000, '\0');
    EXPECT_EQ(recv(peer, got.data(), got.size(), MSG_WAITALL), 1'000'000);
    std::this_thread::sleep_for(milliseconds(20));
    SendAll(peer, "done");
    peer.Close();
  });
  std::string data = test::Pattern(1'000'000);
  EXPECT_EQ(client.OnSend(data.data(), static_cast<int>(data.size())), 0);
  char got[16];
  EXPECT_EQ(client.OnRecv(got, sizeof got), 4);
  EXPECT_EQ(client.OnRecv(got, sizeof got), 0);
  answer.join();
  EXPECT_EQ(client.OnStopTCPClient(false), 1);
  EXPECT_EQ(client.IsConnecting(), 0);
  EXPECT_EQ(EachClientGroupTable::Instance().Find(kTcpGroup), nullptr);
}

}  // namespace
