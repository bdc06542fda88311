// How an RTSP client keeps its stream: keep-alive, watchdog, reconnection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "cms/streaming/rtsp_client.h"
#include "tests/net/loopback.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

using test::ConfigFor;
using test::H264Packets;
using test::RtspAnswer;
using test::RtspRequest;
using test::RtspTestClient;
using test::ScriptedRtspServer;
using test::WaitFor;

namespace {

cms::ReconnectPolicy QuickPolicy() {
  cms::ReconnectPolicy policy;
  policy.deadStreamMs = 60'000;
  policy.firstPauseMs = 20;
  policy.longestPauseMs = 100;
  return policy;
}

TEST(Keeping, SendsGetParameterWithTheBareSessionId) {
  ScriptedRtspServer server({.session = "id-7;timeout=2"});
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportUdp)));
  ASSERT_TRUE(WaitFor([&] { return server.Count("GET_PARAMETER") >= 2; }));
  const RtspRequest request = server.Requests("GET_PARAMETER")[0];
  EXPECT_EQ(request.text, "GET_PARAMETER " + server.Url() +
                              "/ RTSP/1.0\r\nCSeq: " + request.Header("CSeq") +
                              "\r\nSession: id-7\r\nUser-Agent: Orvanta_CMS v2009.11.02\r\n\r\n");
}

TEST(Keeping, FallsBackToOptionsWhereGetParameterIsUnknown) {
  for (const bool announced : {true, false}) {
    ScriptedRtspServer server({.session = "id-7;timeout=2", .knowsGetParameter = false});
    if (!announced) {  // the server does not say which methods it knows: the 405 does
      server.Once("OPTIONS", [&](const RtspRequest& r) {
        return test::WithoutHeader(server.GoodAnswer(r), "Public");
      });
    }
    RtspTestClient client;
    ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportInterleaved)));
    ASSERT_TRUE(WaitFor([&] { return server.Count("OPTIONS") >= 3; }));
    EXPECT_EQ(server.Count("GET_PARAMETER"), announced ? 0u : 1u);
    EXPECT_EQ(server.Requests("OPTIONS")[1].Header("Session"), "id-7");
  }
}

class KeepingBoth : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(, KeepingBoth,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved));

TEST_P(KeepingBoth, ACameraThatIsSwitchedOffAndOnIsBackWithoutHelp) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  client.SetReconnectPolicy(QuickPolicy());
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  H264Packets packets;
  std::size_t seen = 0;
  const auto frameArrives = [&] {
    return WaitFor([&] {
      server.SendRtp(0, packets.Picture());
      server.SendRtp(0, packets.KeyFrame());
      return client.Video().size() > seen;
    });
  };
  for (std::uint32_t round = 1; round <= 3; ++round) {
    ASSERT_TRUE(frameArrives());
    server.Stop();
    ASSERT_TRUE(WaitFor(
        [&] { return client.GetConnectionStatus().state != cms::ConnectionState::kPlaying; }));
    ASSERT_TRUE(WaitFor([&] { return client.Fault() == cms::ConnectionFault::kUnreachable; }));
    EXPECT_EQ(client.IsClientPlaying(), 0);
    server.Start();
    ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == round; }));
    seen = client.Video().size();
    ASSERT_TRUE(frameArrives());
  }
}

TEST_P(KeepingBoth, AStreamWithoutPacketsIsDeadAndOpenedAgain) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  cms::ReconnectPolicy policy = QuickPolicy();
  policy.deadStreamMs = 200;
  client.SetReconnectPolicy(policy);
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects >= 2; }));
  EXPECT_GE(server.Count("TEARDOWN"), 1u) << "the camera's session is given back";
}

TEST(Keeping, AForgottenSessionIsOpenedAgain) {
  ScriptedRtspServer server({.session = "1;timeout=2"});
  server.Once("GET_PARAMETER",
              [](const RtspRequest& r) { return test::RtspResponse(r, 454, "Session Not Found"); });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportUdp);
  client.SetConfig(&config);
  client.SetReconnectPolicy(QuickPolicy());
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  EXPECT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == 1; }));
}

TEST(Keeping, StaysClosedWhenThePolicySaysSoAndAfterCloseStream) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  client.SetReconnectPolicy(QuickPolicy());
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  client.CloseStream();
  server.CloseConnections();
  EXPECT_EQ(client.GetConnectionStatus().state, cms::ConnectionState::kClosed);

  cms::ReconnectPolicy once = QuickPolicy();
  once.enabled = false;
  client.SetReconnectPolicy(once);
  server.On("DESCRIBE",
            [](const RtspRequest& r) { return test::RtspResponse(r, 404, "Not Found"); });
  ASSERT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(WaitFor([&] { return client.Fault() == cms::ConnectionFault::kNoSuchStream; }));
  ASSERT_TRUE(
      WaitFor([&] { return client.GetConnectionStatus().state == cms::ConnectionState::kClosed; }));
  EXPECT_EQ(server.Connections().size(), 2u);

  server.On("DESCRIBE", [&](const RtspRequest& r) { return server.GoodAnswer(r); });
  EXPECT_EQ(client.KeepOpen(), 1) << "a keeping that gave up can begin anew";
  EXPECT_TRUE(WaitFor([&] { return client.IsClientPlaying() != 0; }));
}

TEST(Keeping, TakesOverAStreamThatIsOpenAlready) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportUdp);
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  EXPECT_EQ(client.KeepOpen(), 1);
  EXPECT_EQ(client.KeepOpen(), 0) << "kept already";
  EXPECT_TRUE(WaitFor([&] { return client.IsClientPlaying() != 0; }));
  EXPECT_EQ(server.Connections().size(), 1u);
}

TEST_P(KeepingBoth, APausedStreamStaysPausedUntilItIsResumed) {
  ScriptedRtspServer server({.session = "1;timeout=2"});
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  cms::ReconnectPolicy policy = QuickPolicy();
  policy.deadStreamMs = 500;
  client.SetReconnectPolicy(policy);
  const auto state = [&] { return client.GetConnectionStatus().state; };
  ASSERT_EQ(client.OpenStream(), 1);
  ASSERT_EQ(client.Pause(), 1) << client.GetConnectionStatus().detail;
  client.Play();
  EXPECT_EQ(state(), cms::ConnectionState::kPaused);
  ASSERT_TRUE(WaitFor([&] { return server.Count("GET_PARAMETER") >= 2; })) << "it is kept alive";
  EXPECT_EQ(server.Connections().size(), 1u) << "and not taken for dead";
  EXPECT_EQ(server.Playing(), 0u);

  server.CloseConnections();  // what comes back is paused, too
  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == 1; }));
  EXPECT_EQ(state(), cms::ConnectionState::kPaused);
  EXPECT_EQ(server.Count("PLAY"), 1u);
  ASSERT_EQ(client.Resume(), 1);
  EXPECT_GE(server.Count("PLAY"), 2u);

  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects >= 2; }))
      << "resumed, and no packet comes";
  ASSERT_TRUE(WaitFor([&] { return client.Pause() == 1; }));
  server.Stop();
  ASSERT_TRUE(WaitFor([&] { return state() == cms::ConnectionState::kWaiting; }));
  EXPECT_EQ(client.Resume(), 1) << "taken back while the camera is away";
  server.Start();
  EXPECT_TRUE(WaitFor([&] { return server.Playing() == 1; }));
}

TEST_P(KeepingBoth, AStreamThatIsPlayedAgainCanStillBePaused) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(client.Play(), 1);
    EXPECT_EQ(client.Pause(), 1) << client.GetConnectionStatus().detail;
    EXPECT_EQ(client.Resume(), 1) << client.GetConnectionStatus().detail;
    client.StopPlay();
  }
}

// The user corrects what was wrong and does not wait for the next attempt of the library's own.
TEST(Keeping, AStreamThatTheApplicationOpensMeanwhileIsKeptAtOnce) {
  ScriptedRtspServer server({.session = "1;timeout=2"});
  server.Once("DESCRIBE",
              [](const RtspRequest& r) { return test::RtspResponse(r, 404, "Not Found"); });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  cms::ReconnectPolicy policy = QuickPolicy();
  policy.firstFullPauseMs = 3'600'000;
  policy.longestFullPauseMs = 3'600'000;
  client.SetReconnectPolicy(policy);
  ASSERT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().retryInMs > 60'000; }));
  ASSERT_EQ(client.OpenStream(), 1);
  ASSERT_EQ(client.Play(), 1);
  ASSERT_TRUE(WaitFor([&] { return server.Count("GET_PARAMETER") >= 1; }));
  server.CloseConnections();
  EXPECT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == 1; }));
}

TEST(Keeping, TheStatusSaysWhatIsGoingOnBetweenOpeningAndClosing) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  const auto state = [&] { return client.GetConnectionStatus().state; };
  ASSERT_EQ(client.OpenStream(), 1);
  EXPECT_EQ(state(), cms::ConnectionState::kOpen);
  EXPECT_EQ(client.IsClientPlaying(), 0);
  client.Play();
  EXPECT_EQ(state(), cms::ConnectionState::kPlaying);
  client.StopPlay();
  EXPECT_EQ(state(), cms::ConnectionState::kOpen);
  client.CloseStream();
  EXPECT_EQ(state(), cms::ConnectionState::kClosed);

  server.Stop();
  ASSERT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().retryInMs > 0; }));
  client.StopPlay();
  EXPECT_EQ(state(), cms::ConnectionState::kClosed) << "no attempt comes any more";
  EXPECT_EQ(client.GetConnectionStatus().retryInMs, 0u);
}

// A recorder that accepts and says nothing, under many names, in front of one good camera.
TEST(Keeping, SilentCamerasDelayNeitherTheOpeningNorTheKeepingOfAHealthyOne) {
  const test::Listener silent(256);
  const std::string silentUrl = "rtsp://127.0.0.1:" + std::to_string(silent.Port()) + "/live";
  ScriptedRtspServer server({.session = "1;timeout=2"});
  std::vector<std::unique_ptr<RtspTestClient>> clients;
  const auto add = [&](const std::string& url) {
    clients.push_back(std::make_unique<RtspTestClient>());
    cms::stRTSPClientConfig config = ConfigFor(url, cms::kRtspTransportInterleaved);
    config.answerTimeoutMs = 600'000;
    clients.back()->SetConfig(&config);
    clients.back()->SetReconnectPolicy(QuickPolicy());
    ASSERT_EQ(clients.back()->KeepOpen(), 1);
  };
  for (int i = 0; i < 64; ++i) {
    add(silentUrl);
  }
  add(server.Url());
  const auto& healthy = *clients.back();
  ASSERT_TRUE(WaitFor([&] { return healthy.IsClientPlaying() != 0; }));
  ASSERT_TRUE(WaitFor([&] { return server.Count("GET_PARAMETER") >= 2; }));
  server.CloseConnections();
  ASSERT_TRUE(WaitFor([&] { return healthy.GetConnectionStatus().reconnects == 1; }));
  for (std::size_t i = 0; i + 1 < clients.size(); ++i) {
    EXPECT_TRUE(WaitFor([&] {
      return clients[i]->GetConnectionStatus().state == cms::ConnectionState::kOpening;
    })) << i;
  }
}

// Many cameras that vanish together must not be opened all at the same moment.
TEST(Keeping, CamerasThatComeBackTogetherDoNotStorm) {
  ScriptedRtspServer server;
  cms::ReconnectPolicy policy = QuickPolicy();
  policy.firstPauseMs = 2'000;
  policy.longestPauseMs = 4'000;
  std::vector<std::unique_ptr<RtspTestClient>> clients;
  constexpr std::size_t kCameras = 100;
  for (std::size_t i = 0; i < kCameras; ++i) {
    clients.push_back(std::make_unique<RtspTestClient>());
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
    clients.back()->SetConfig(&config);
    clients.back()->SetReconnectPolicy(policy);
    ASSERT_EQ(clients.back()->KeepOpen(), 1);
  }
  const auto allPlaying = [&] { return server.Playing() == kCameras; };
  ASSERT_TRUE(WaitFor(allPlaying));
  server.CloseConnections();
  ASSERT_TRUE(WaitFor([&] { return server.Playing() == 0; }));
  ASSERT_TRUE(WaitFor(allPlaying));
  auto times = server.Connections();
  times.erase(times.begin(), times.begin() + kCameras);
  ASSERT_GE(times.size(), kCameras);
  EXPECT_GT(times.back() - times.front(), std::chrono::milliseconds(500)) << "spread over a second";
}

}  // namespace
