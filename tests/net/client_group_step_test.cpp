// A client's step and its owner: who waits for whom.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "cms/exports/net_exports.h"
#include "cms/net/client_group.h"
#include "cms/net/internal/io_group.h"
#include "tests/net/acting_clients.h"
#include "tests/net/loopback.h"
#include "tests/support/no_more_threads.h"
#include "tests/support/process_state.h"
#include "tests/support/wait.h"

namespace {

using std::chrono::milliseconds;
using test::ActingClient;
using test::ActingStep;
using test::Descriptor;
using test::SendTo;
using test::WaitFor;

constexpr int kStepGroup = 400;

EachClientGroupTable& StepTable() {
  return EachClientGroupTable::Instance();
}

// What a step does, and then goes on working.
struct Work {
  std::atomic<bool> acted{false};
  std::atomic<bool> left{false};

  void Do(const std::function<void()>& action) {
    action();
    acted = true;
    std::this_thread::sleep_for(milliseconds(100));
    left = true;
  }
};

class ClientStepTest : public testing::Test {
 protected:
  void TearDown() override { StopEachClientNBManager(); }

  Descriptor peer_ = test::BoundSocket(SOCK_DGRAM);
};

// However a callback takes its own client out of the group, its owner waits for the callback.
TEST_F(ClientStepTest, OwnersWaitForAStepWhoseClientIsNotRegisteredAnyMore) {
  const std::function<void(ActingClient&)> ways[] = {
      [](ActingClient& client) { StepTable().Unregister(&client); },
      [](ActingClient& client) { client.OnStopUDPClient(); },
      [](ActingClient& client) { EXPECT_NE(StepTable().Register(&client, kStepGroup + 1), 0); },
  };
  for (const auto& way : ways) {
    for (const bool destroys : {false, true}) {
      Work work;
      std::unique_ptr<ActingClient> client;
      client = std::make_unique<ActingClient>([&] { work.Do([&] { way(*client); }); });
      ASSERT_TRUE(client->Start(kStepGroup));
      SendTo(peer_, client->BoundPort(), "x");
      ASSERT_TRUE(WaitFor([&] { return work.acted.load(); }));
      if (destroys) {
        ActingClient* const owned = client.release();  // which the callback reads
        delete owned;
      } else {
        client->OnStopUDPClient();
      }
      EXPECT_TRUE(work.left);
    }
  }
}

TEST_F(ClientStepTest, OwnersOfConnectionsWaitForAStepThatStoppedThem) {
  const test::Listener listener;
  Work work;
  struct Context {
    Work& work;
    test::TcpClient* client = nullptr;
  } context{work};
  tTcpClientParam param;
  param.recvContext = &context;
  param.recvCallback = [](char*, int, void* given) {
    auto* const own = static_cast<Context*>(given);
    own->work.Do([&] { own->client->OnStopTCPClient(false); });
  };
  auto client = std::make_unique<test::TcpClient>(param);
  context.client = client.get();
  ASSERT_TRUE(client->Start(listener.Port(), kStepGroup));
  const Descriptor peer = listener.Accept();
  send(peer, "x", 1, MSG_NOSIGNAL);
  ASSERT_TRUE(WaitFor([&] { return work.acted.load(); }));
  client.reset();
  EXPECT_TRUE(work.left);
}

TEST_F(ClientStepTest, OwnersWaitForAnRtcpStepThatUnregisteredItself) {
  Work work;
  ActingStep step([&] {
    work.Do([&] { StepTable().Unregister(&step); });
    return 0;
  });
  ASSERT_NE(StepTable().Register(&step, kStepGroup), 0);
  ASSERT_TRUE(WaitFor([&] { return work.acted.load(); }));
  StepTable().Unregister(&step);
  EXPECT_TRUE(work.left);
  EXPECT_EQ(step.calls, 1);
}

// Both at the same time, in every order that there is.
TEST_F(ClientStepTest, ACallbackStopsItsClientWhileTheOwnerDestroysIt) {
  for (int i = 0; i < 100; ++i) {
    std::atomic<bool> entered{false};
    ActingClient* raw = nullptr;
    auto client = std::make_unique<ActingClient>([&] {
      entered = true;
      std::this_thread::sleep_for(std::chrono::microseconds(i * 5));
      raw->OnStopUDPClient();
    });
    raw = client.get();
    ASSERT_TRUE(client->Start(kStepGroup));
    SendTo(peer_, client->BoundPort(), "x");
    ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
    client.reset();
  }
}

// Another thread serves it by then, so what is left of the step must not.
TEST_F(ClientStepTest, AClientThatMovesIsServedByOneThreadAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::atomic<bool> moved{false};
  ActingClient client([&] {
    most = std::max(most.load(), ++inside);
    if (!moved.exchange(true)) {
      --inside;  // the new group may begin before this call returns
      EXPECT_NE(StepTable().Register(&client, kStepGroup + 1), 0);
      std::this_thread::sleep_for(milliseconds(50));
      return;
    }
    std::this_thread::sleep_for(milliseconds(1));
    --inside;
  });
  ASSERT_NE(StepTable().Register(&client, kStepGroup + 1), 0);  // the group's threads run
  StepTable().Unregister(&client);
  ASSERT_TRUE(client.Start(kStepGroup));
  const std::uint16_t port = client.BoundPort();
  ASSERT_TRUE(WaitFor([&] {
    for (int i = 0; i < 10; ++i) {
      SendTo(peer_, port, "x");
    }
    return client.calls >= 100;
  }));
  client.OnStopUDPClient();
  EXPECT_EQ(most, 1);
}

TEST_F(ClientStepTest, ACallbackThatHoldsUpTheStopForTooLongKeepsItsOwnerWaiting) {
  std::atomic<bool> entered{false};
  std::atomic<bool> leave{false};
  std::atomic<bool> unregistered{false};
  ActingClient client([&] {
    entered = true;
    while (!leave) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_FALSE(unregistered);
  });
  ASSERT_TRUE(client.Start(kStepGroup));
  SendTo(peer_, client.BoundPort(), "x");
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  StopEachClientNBManager();  // gives up after 10 seconds
  std::thread owner([&] {
    client.OnStopUDPClient();
    unregistered = true;
  });
  std::this_thread::sleep_for(milliseconds(50));
  leave = true;
  owner.join();
}

// Without a turn for every client the steps would come every two seconds.
TEST_F(ClientStepTest, ABusySenderLetsTheOtherStepsHaveTheirTurn) {
  _UDPCLIENT_CONFIG config;
  config.remoteAddress = INADDR_LOOPBACK;
  config.remotePort = test::PortOf(peer_);
  config.sendQueueDepth = 50'000;  // never empty while the test lasts
  config.sendDatagramSize = 16;
  test::UdpClient sender(config);
  ASSERT_TRUE(sender.Start(kStepGroup));
  ActingStep step([] { return 0; });
  ASSERT_NE(StepTable().Register(&step, kStepGroup), 0);
  std::atomic<bool> done{false};
  std::thread offering([&] {
    while (!done) {
      sender.Send("x");
    }
  });
  const int before = step.calls;
  EXPECT_TRUE(WaitFor([&] { return step.calls >= before + 25; }));
  done = true;
  offering.join();
  StepTable().Unregister(&step);
}

TEST_F(ClientStepTest, WithoutThreadsRegisteringFailsAndLaterWorks) {
  test::Sink sink;
  test::UdpClient client(test::UdpInto(sink));
  ASSERT_NE(client.OnStartUDPClient(), 0);
  const std::size_t before = test::OpenDescriptors();
  {
    const test::NoMoreThreads refused;
    EXPECT_EQ(StepTable().Register(&client, kStepGroup), 0);
  }
  EXPECT_EQ(StepTable().Find(kStepGroup), nullptr);
  EXPECT_EQ(test::OpenDescriptors(), before);
  ASSERT_NE(StepTable().Register(&client, kStepGroup), 0);
  SendTo(peer_, client.BoundPort(), "x");
  EXPECT_TRUE(WaitFor([&] { return sink.Calls() == 1; }));
}

}  // namespace
