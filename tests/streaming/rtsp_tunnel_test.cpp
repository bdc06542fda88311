// RTSP inside HTTP, with a real server and with those that know nothing of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/tls_front.h"
#include "tests/support/wait.h"

namespace {

using namespace cms;
using test::ConfigFor;
using test::RtspRequest;
using test::RtspTestClient;
using test::ScriptedRtspServer;
using test::WaitFor;
using testing::HasSubstr;

void PlaysThroughATunnel(cms::stRTSPClientConfig config) {
  RtspTestClient client;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  ASSERT_EQ(client.Play(), 1);
  EXPECT_TRUE(WaitFor([&] { return client.Video().size() >= 20 && client.Audio().size() >= 10; }));
  // A keep-alive at half of the session's two seconds, and the session outlives it.
  const std::size_t frames = client.Video().size();
  EXPECT_TRUE(WaitFor([&] { return client.Video().size() >= frames + 80; }));
  EXPECT_EQ(client.GetConnectionStatus().reconnects, 0u);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kNone);
}

TEST(RtspTunnel, CarriesWhatARealServerSends) {
  const test::RtspCamera camera({"--audio", "pcmu", "--auth", "digest", "--session-timeout", "2"});
  cms::stRTSPClientConfig config =
      ConfigFor(test::WithCredentials(camera.Url(), "admin", "admin"), cms::kRtspTransportHttp);
  config.ignoreDelimiters = true;
  PlaysThroughATunnel(config);
}

TEST(RtspTunnel, GoesThroughTlsToo) {
  const test::RtspCamera camera({"--audio", "pcmu", "--session-timeout", "2"});
  const test::Certificate certificate("127.0.0.1");
  const test::TlsFront front(camera.Port(), certificate);
  cms::stRTSPClientConfig config = ConfigFor(front.Url(camera.Url()), cms::kRtspTransportHttp);
  config.certificate = CertificateCheck::kPinned;
  config.certificateFingerprint = certificate.Fingerprint();
  config.ignoreDelimiters = true;
  PlaysThroughATunnel(config);
}

TEST(RtspTunnel, GoesThroughTheTlsOfARealServer) {
  const test::RtspCamera camera({"--tls", "--audio", "pcmu", "--session-timeout", "2"});
  cms::stRTSPClientConfig config = ConfigFor(camera.Url(), cms::kRtspTransportHttp);
  config.certificate = CertificateCheck::kPinned;
  config.certificateFingerprint = camera.Fingerprint();
  config.ignoreDelimiters = true;
  PlaysThroughATunnel(config);
}

TEST(RtspTunnel, AWebServerWithoutOneIsToldApart) {
  const struct {
    const char* answer;
    cms::ConnectionFault fault;
    const char* says;
    std::size_t asked;
  } cases[] = {
      {"HTTP/1.1 404 Not Found\r\n\r\n", cms::ConnectionFault::kTransportRefused, "status 404", 1},
      {"RTSP/1.0 405 Method Not Allowed\r\n\r\n", cms::ConnectionFault::kTransportRefused,
       "status 0", 1},
      {"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n\r\n",
       cms::ConnectionFault::kPasswordRefused, "user name or password is wrong", 2},
      {"HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: NTLM\r\n\r\n",
       cms::ConnectionFault::kPasswordRefused, "NTLM", 1},
      {"", cms::ConnectionFault::kTransportRefused, "closed the connection", 1},
  };
  for (const auto& each : cases) {
    ScriptedRtspServer server;
    server.On("GET", [&](const RtspRequest&) { return test::RtspAnswer(each.answer).Close(); });
    RtspTestClient client;
    cms::stRTSPClientConfig config =
        ConfigFor(server.UrlFor("admin", "secret"), cms::kRtspTransportHttp);
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 0);
    EXPECT_EQ(client.Fault(), each.fault) << each.answer;
    EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr(each.says));
    const auto requests = server.Requests("GET");
    ASSERT_EQ(requests.size(), each.asked);
    EXPECT_THAT(requests.front().text, HasSubstr("GET /live HTTP/1.0\r\n"));
    EXPECT_EQ(requests.front().Header("x-sessioncookie").size(), 22u);
    EXPECT_EQ(requests.back().Header("Authorization").empty(), each.asked == 1);
  }
}

}  // namespace
