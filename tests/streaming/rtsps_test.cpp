// RTSP over TLS, as a site client uses it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "cms/net/tls_parameters.h"
#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/tls_front.h"
#include "tests/support/wait.h"

namespace {

using namespace cms;  // NOLINT
using test::ConfigFor;
using test::RtspTestClient;
using test::ScriptedCamera;
using test::ScriptedRtspServer;
using test::WaitFor;
using testing::HasSubstr;

// One certificate for 127.0.0.1, which this system trusts.
const test::Certificate& Trusted() {
  static const test::Certificate certificate("127.0.0.1");
  return certificate;
}

class Rtsps : public testing::Test {
 protected:
  // Each test is a process of its own, and they run side by side.
  static std::string TrustedFile() {
    return testing::TempDir() + "trusted." + std::to_string(getpid()) + ".pem";
  }
  static void SetUpTestSuite() {
    std::ofstream(TrustedFile()) << Trusted().Pem();
    setenv("SSL_CERT_FILE", TrustedFile().c_str(), 1);
  }
  static void TearDownTestSuite() { std::remove(TrustedFile().c_str()); }

  cms::stRTSPClientConfig Config(const test::TlsFront& front) const {
    return ConfigFor(front.Url(server_.Url()), cms::kRtspTransportInterleaved);
  }

  ScriptedRtspServer server_;
};

void OpenSecurely(RtspTestClient& client, cms::stRTSPClientConfig config) {
  ASSERT_EQ(client.SetConfig(&config), 1) << client.GetConnectionStatus().detail;
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  ASSERT_EQ(client.Play(), 1);
}

TEST_F(Rtsps, CarriesPicturesSoundReportsAndKeepAlives) {
  ScriptedRtspServer server({.session = "3BA1C0DE;timeout=2"});
  test::TlsFront front(server.Port(), Trusted());
  RtspTestClient client;
  OpenSecurely(client, ConfigFor(front.Url(server.Url()), cms::kRtspTransportInterleaved));
  test::H264Packets packets;
  std::uint16_t sound = 0;
  // Of a sender that has sent nothing yet: the client's reports follow it.
  const std::string report = std::string("\x80\xc8\0\6\x0c\xa3\xe8\xa0", 8) + std::string(20, '\0');
  // A frame that takes several records, and new keys in between.
  EXPECT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    server.SendRtp(0, packets.KeyFrame(50'000));
    server.SendRtcp(0, report);
    server.SendRtp(1, test::RtpText({.payloadType = 0, .sequence = ++sound}, "ssss"));
    if (client.Video().size() == 4) {
      front.ChangeKeys();
    }
    return client.Video().size() >= 10 && !client.Audio().empty() &&
           server.Count("GET_PARAMETER") >= 2 && !server.InterleavedReceived().empty();
  }));
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kNone);
  EXPECT_EQ(server.Requests()[0].url, front.Url(server.Url()));
  client.CloseStream();
  EXPECT_TRUE(WaitFor([&] { return server.Count("TEARDOWN") == 1; }));
  const auto frames = client.Video();
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_TRUE(frames[i].payload.size() < 100 || frames[i].payload.size() >= 50'000);
  }
}

TEST_F(Rtsps, WhatIsNotTheCameraIsRefusedBeforeAnythingIsSaid) {
  const test::Certificate other("127.0.0.1");
  const test::Certificate elsewhere("camera.example");
  test::TlsFront unknown(server_.Port(), other);
  test::TlsFront misnamed(server_.Port(), elsewhere);
  test::TlsFront good(server_.Port(), Trusted());
  const struct {
    const test::TlsFront& front;
    CertificateCheck check;
    std::string fingerprint;
    const char* says;  // nullptr: it is taken
  } cases[] = {
      {good, CertificateCheck::kSystem, "", nullptr},
      {unknown, CertificateCheck::kSystem, "", "self-signed certificate"},
      {misnamed, CertificateCheck::kSystem, "", "--fingerprint"},
      {unknown, CertificateCheck::kPinned, other.Fingerprint(), nullptr},
      {misnamed, CertificateCheck::kPinned, elsewhere.Fingerprint(), nullptr},
      {good, CertificateCheck::kPinned, other.Fingerprint(), "not the one"},
      {unknown, CertificateCheck::kNone, "", nullptr},
      {misnamed, CertificateCheck::kNone, "", nullptr},
  };
  for (const auto& each : cases) {
    // Not all requests: the last client's farewell may still be on its way.
    const std::size_t before = server_.Count("OPTIONS");
    RtspTestClient client;
    cms::stRTSPClientConfig config = Config(each.front);
    config.certificate = each.check;
    config.certificateFingerprint = each.fingerprint;
    ASSERT_EQ(client.SetConfig(&config), 1);
    EXPECT_EQ(client.OpenStream(), each.says == nullptr ? 1 : 0)
        << client.GetConnectionStatus().detail;
    if (each.says != nullptr) {
      EXPECT_EQ(client.Fault(), cms::ConnectionFault::kCertificateRefused);
      EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr(each.says));
      EXPECT_EQ(server_.Count("OPTIONS"), before);
    }
  }
  RtspTestClient client;
  cms::stRTSPClientConfig config = Config(unknown);
  client.SetConfig(&config);
  client.OpenStream();
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr(other.Fingerprint()));
  config.certificate = CertificateCheck::kPinned;
  config.certificateFingerprint = "AB:CD";
  EXPECT_EQ(client.SetConfig(&config), 0);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("SHA-256"));
}

TEST_F(Rtsps, AServerWithoutTlsIsNoticedAndWaitedForNoLongerThanToldTo) {
  RtspTestClient client;
  const std::string plain = "rtsps" + server_.Url().substr(4);
  cms::stRTSPClientConfig config = ConfigFor(plain, cms::kRtspTransportInterleaved);
  config.connectTimeoutMs = 100;
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kNoAnswer);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("port for rtsps"));

  config.connectTimeoutMs = 600'000;
  client.SetConfig(&config);
  std::thread opening([&] { client.OpenStream(); });
  EXPECT_TRUE(WaitFor([&] { return server_.Connections().size() == 2; }));
  client.CloseStream();
  opening.join();
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kCancelled);
}

TEST_F(Rtsps, BasicIsAnsweredWhereNobodyCanReadIt) {
  ScriptedRtspServer server({.auth = ScriptedCamera::Auth::kBasic});
  test::TlsFront front(server.Port(), Trusted());
  struct {
    std::string url;
    bool allowed;
    bool opens;
  } const cases[] = {{server.Url(), false, false},
                     {server.Url(), true, true},
                     {front.Url(server.Url()), false, true}};
  for (const auto& each : cases) {
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(each.url, cms::kRtspTransportInterleaved);
    config.user = "admin";
    config.password = "secret";
    config.allowBasic = each.allowed;
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), each.opens ? 1 : 0) << client.GetConnectionStatus().detail;
    if (!each.opens) {
      EXPECT_EQ(client.Fault(), cms::ConnectionFault::kPasswordRefused);
      EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("--allow-basic"));
      EXPECT_EQ(server.Requests().size(), 1u);
    }
  }
}

TEST(Tls, FingerprintsAreReadAsTheyAreShown) {
  const std::string plain(64, 'A');
  EXPECT_EQ(cms::PlainFingerprint(plain), plain);
  EXPECT_EQ(cms::PlainFingerprint(std::string(64, 'a')), plain);
  std::string shown;
  for (int i = 0; i < 32; ++i) {
    shown += i > 0 ? ":aA" : "aA";
  }
  EXPECT_EQ(cms::PlainFingerprint(shown), plain);
  for (const std::string& text :
       {std::string(), plain + "A", plain.substr(1), "x" + plain.substr(1)}) {
    EXPECT_EQ(cms::PlainFingerprint(text), "");
  }
}

}  // namespace
