// The answers of cameras and servers as they come in the field, and what a client makes of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <functional>
#include <string>
#include <thread>

#include "cms/streaming/internal/name_lookup.h"
#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

using test::ConfigFor;
using test::H264Packets;
using test::RtspAnswer;
using test::RtspRequest;
using test::RtspTestClient;
using test::ScriptedCamera;
using test::ScriptedRtspServer;
using test::WaitFor;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kVideo[] =
    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
constexpr char kMicrophone[] = "m=audio 0 RTP/AVP 0\r\na=control:trackID=1\r\n";
constexpr char kBackchannel[] = "m=audio 0 RTP/AVP 8\r\na=sendonly\r\na=control:trackID=2\r\n";

// --- Legal, and strange --------------------------------------------------------------------------

struct Oddity {
  const char* name;
  ScriptedCamera camera;
  std::function<void(ScriptedRtspServer&)> prepare;
};

RtspAnswer WithoutLength(const ScriptedRtspServer&, const std::string& answer,
                         std::size_t firstPiece) {
  const std::string text = test::WithoutHeader(answer, "Content-Length");
  return RtspAnswer(text.substr(0, firstPiece))
      .Pause(std::chrono::milliseconds(20))
      .Then(text.substr(firstPiece));
}

const Oddity kOddities[] = {
    {"EveryAnswerIsNumberOne",
     {},
     [](auto& s) {
       s.On("*",
            [&s](const RtspRequest& r) { return test::WithHeader(s.GoodAnswer(r), "CSeq", "1"); });
     }},
    {"ContinueComesFirst",
     {},
     [](auto& s) {
       s.On("SETUP", [&s](const RtspRequest& r) {
         return "RTSP/1.0 100 Continue\r\nCSeq: " + r.Header("CSeq") + "\r\n\r\n" + s.GoodAnswer(r);
       });
     }},
    {"TheDescriptionHasNoLength",
     {},
     [](auto& s) {
       s.On("DESCRIBE", [&s](const RtspRequest& r) {
         return RtspAnswer(test::WithoutHeader(s.GoodAnswer(r), "Content-Length"));
       });
     }},
    {"TheDescriptionHasNoLengthAndComesInPieces",
     {},
     [](auto& s) {
       s.On("DESCRIBE", [&s](const RtspRequest& r) {
         const std::string answer = s.GoodAnswer(r);
         return WithoutLength(s, answer, answer.find("m=video"));
       });
     }},
    {"EachStreamHasASessionOfItsOwn",
     {.session = "first;timeout=30"},
     [](auto& s) {
       s.Once("SETUP", [&s](const RtspRequest& r) { return s.GoodAnswer(r); });
       s.Once("SETUP", [&s](const RtspRequest& r) {
         return test::WithHeader(s.GoodAnswer(r), "Session", "second;timeout=60");
       });
     }},
    {"TheClientsPortsAreNotRepeatedRightly",
     {},
     [](auto& s) {
       s.On("SETUP", [&s](const RtspRequest& r) {
         std::string answer = s.GoodAnswer(r);
         if (const auto at = answer.find("client_port="); at != std::string::npos) {
           answer.replace(at, answer.find(';', at) - at, "client_port=65535");
         }
         return answer;
       });
     }},
    {"TheBackchannelIsDescribedUnasked",
     {.sdp = std::string("v=0\r\n") + kVideo + kMicrophone + kBackchannel},
     [](auto& s) {
       s.On("SETUP", [&s](const RtspRequest& r) {
         return r.url.ends_with("trackID=2") ? test::RtspResponse(r, 551, "Option not supported")
                                             : s.GoodAnswer(r);
       });
     }},
    {"TheCameraMarksWhatItSends",
     {.sdp = std::string("v=0\r\n") + kVideo + "a=sendonly\r\n" + kMicrophone + "a=sendonly\r\n"},
     [](auto&) {}},
};

struct OddCamera {
  const Oddity* oddity;
  int transport;
};

std::vector<OddCamera> OddCameras() {
  std::vector<OddCamera> cameras;
  for (const Oddity& oddity : kOddities) {
    cameras.push_back({&oddity, cms::kRtspTransportUdp});
    cameras.push_back({&oddity, cms::kRtspTransportInterleaved});
  }
  return cameras;
}

class OddCamerasTest : public testing::TestWithParam<OddCamera> {};
INSTANTIATE_TEST_SUITE_P(, OddCamerasTest, testing::ValuesIn(OddCameras()), [](const auto& odd) {
  return std::string(odd.param.oddity->name) +
         (odd.param.transport == cms::kRtspTransportUdp ? "Udp" : "Tcp");
});

TEST_P(OddCamerasTest, AreUnderstood) {
  ScriptedRtspServer server(GetParam().oddity->camera);
  GetParam().oddity->prepare(server);
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), GetParam().transport)));
  EXPECT_EQ(client.GetVideoEncoding(), "H264");
  EXPECT_EQ(client.GetAudioEncoding(), "PCMU");
  EXPECT_EQ(server.Count("SETUP"), 2u);
  H264Packets packets;
  EXPECT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    server.SendRtp(0, packets.KeyFrame());
    return client.Video().size() >= 2;
  }));
  client.CloseStream();
  EXPECT_EQ(server.Playing(), 0u);
  EXPECT_EQ(server.Count("TEARDOWN"), 1u);
}

TEST(RtspDialogue, AStreamWithoutAControlLineIsThePresentationItself) {
  for (const char* session : {"", "a=control:*\r\n"}) {
    ScriptedRtspServer server(
        {.sdp = std::string("v=0\r\n") + session + "m=video 0 RTP/AVP 26\r\n"});
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
    ASSERT_EQ(server.Count("SETUP"), 1u);
    EXPECT_EQ(server.Requests("SETUP")[0].url, server.Url() + "/") << "as Content-Base has it";
  }
}

TEST(RtspDialogue, PlaysTheRangeOfTheDescription) {
  // As the programs of a desktop set the user's; where there is none with a decimal comma, the
  // plain one.
  const char* const comma = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  for (const auto& [range, expected] :
       {std::pair{"npt=0-12.5", "npt=0.000-12.500"}, std::pair{"npt=1.25-1e300", "npt=1.250-"},
        std::pair{"npt=now-", ""}}) {
    ScriptedRtspServer server({.sdp = std::string("v=0\r\na=range:") + range + "\r\n" + kVideo});
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
    ASSERT_EQ(server.Count("PLAY"), 1u);
    EXPECT_EQ(server.Requests("PLAY")[0].Header("Range"), expected);
    EXPECT_THAT(server.Requests("PLAY")[0].text, HasSubstr("\r\nUser-Agent: "));
  }
  if (comma != nullptr) {
    std::setlocale(LC_NUMERIC, "C");
  }
}

TEST(RtspDialogue, AUserWithoutAPasswordLogsIn) {
  ScriptedRtspServer server({.auth = ScriptedCamera::Auth::kDigest, .password = ""});
  RtspTestClient client;
  cms::stRTSPClientConfig config =
      ConfigFor(server.UrlFor("admin", ""), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
}

// --- Sessions are given back ------------------------------------------------------------------

TEST(RtspDialogue, TeardownLogsInAgainWithANonceThatIsGoodOnce) {
  ScriptedRtspServer server({.auth = ScriptedCamera::Auth::kDigest});
  RtspTestClient client;
  cms::stRTSPClientConfig config =
      ConfigFor(server.UrlFor("admin", "secret"), cms::kRtspTransportUdp);
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  server.SetNonce("another-nonce");
  EXPECT_EQ(server.Playing(), 1u);
  client.CloseStream();
  const auto requests = server.Requests("TEARDOWN");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_THAT(requests[1].Header("Authorization"), HasSubstr("another-nonce"));
  EXPECT_EQ(server.Playing(), 0u);
}

TEST(RtspDialogue, AnOpeningThatFailsLateGivesItsSessionBackAndNamesTheStream) {
  ScriptedRtspServer server;
  server.Once("SETUP", [&](const RtspRequest& r) { return server.GoodAnswer(r); });
  server.Once("SETUP",
              [](const RtspRequest& r) { return test::RtspResponse(r, 461, "No such transport"); });
  server.On("PLAY", [](const RtspRequest& r) { return test::RtspResponse(r, 454, "No session"); });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kTransportRefused);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("SETUP of the sound"));
  EXPECT_EQ(server.Count("TEARDOWN"), 1u);

  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("session"));
  EXPECT_THAT(client.GetConnectionStatus().detail, Not(HasSubstr("no stream")));
  EXPECT_EQ(server.Count("TEARDOWN"), 2u);
}

TEST(RtspDialogue, ACameraThatAnswersForTheOtherTransportIsToldSo) {
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    ScriptedRtspServer server;
    server.On("SETUP", [&](const RtspRequest& r) {
      return test::WithHeader(server.GoodAnswer(r), "Transport",
                              transport == cms::kRtspTransportUdp
                                  ? "RTP/AVP/TCP;unicast;interleaved=0-1"
                                  : "RTP/AVP;unicast;client_port=10-11;server_port=12-13");
    });
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), transport);
    config.todaysCameras = false;  // of today UDP would make room for TCP
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 0);
    EXPECT_EQ(client.Fault(), cms::ConnectionFault::kTransportRefused)
        << client.GetConnectionStatus().detail;
  }
}

TEST(RtspDialogue, AWebServerIsRecognisedAtOnce) {
  ScriptedRtspServer server;
  server.On("*", [](const RtspRequest&) {
    return "HTTP/1.1 400 Bad Request\r\nContent-Length: 3\r\nConnection: keep-alive\r\n\r\nbad";
  });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  config.answerTimeoutMs = 600'000;
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kBadAnswer);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("web server (HTTP status 400)"));
}

TEST(RtspDialogue, AKeepAliveThatEndsTheConnectionIsNotSentAgain) {
  ScriptedRtspServer server({.session = "1;timeout=2"});
  server.On("GET_PARAMETER", [](const RtspRequest&) { return RtspAnswer().Close(); });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  cms::ReconnectPolicy policy;
  policy.deadStreamMs = 60'000;
  policy.firstPauseMs = 20;
  client.SetReconnectPolicy(policy);
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  ASSERT_TRUE(WaitFor([&] { return client.GetConnectionStatus().reconnects == 1; }));
  ASSERT_TRUE(WaitFor([&] { return server.Count("OPTIONS") >= 4; }));
  EXPECT_EQ(server.Count("GET_PARAMETER"), 1u);
  EXPECT_EQ(client.GetConnectionStatus().reconnects, 1u);
}

// --- What the client application does wrong -----------------------------------------------------

TEST(RtspDialogue, CallsInTheWrongOrderSayWhy) {
  ScriptedRtspServer server;
  RtspTestClient client;
  const auto detail = [&] { return client.GetConnectionStatus().detail; };
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_THAT(detail(), HasSubstr("SetConfig"));
  EXPECT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(WaitFor([&] { return client.Fault() == cms::ConnectionFault::kBadAddress; }));
  client.CloseStream();

  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  ASSERT_EQ(client.SetConfig(&config), 1);
  RtspTestClient early;
  early.SetConfig(&config);
  EXPECT_EQ(early.Play(), 0);
  EXPECT_THAT(early.GetConnectionStatus().detail, HasSubstr("OpenStream"));
  ASSERT_EQ(client.OpenStream(), 1);
  EXPECT_EQ(detail(), "");
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_THAT(detail(), HasSubstr("open already"));
  EXPECT_EQ(client.SetConfig(&config), 0);
  EXPECT_EQ(client.Play(), 1) << "the open stream is as it was";
  EXPECT_EQ(server.Connections().size(), 1u);
}

TEST(RtspDialogue, AnAddressThatCannotBeUsedIsNamedTruly) {
  struct Case {
    const char* url;
    const char* reason;
  };
  for (const Case& c : {Case{"http://camera/live", "http:// is not supported"},
                        Case{"rtsp://[::1:554/live", "IPv6 address"},
                        Case{"rtsp://user:pass@[192.0.2.1.3]/live", "IPv6 address"},
                        Case{"rtsp://[::1]x/live", "IPv6 address"}, Case{"camera/live", "scheme"},
                        Case{"rtsp:///live", "no host"}, Case{"rtsp://camera:0/live", "port"},
                        Case{"rtsp://camera:66000/", "port"}, Case{"rtsp://camera/a b", "blank"}}) {
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(c.url, cms::kRtspTransportUdp);
    EXPECT_EQ(client.SetConfig(&config), 0);
    const std::string detail = client.GetConnectionStatus().detail;
    EXPECT_THAT(detail, HasSubstr(c.reason)) << c.url;
    EXPECT_THAT(detail, Not(HasSubstr("0.0.0.0")));
    EXPECT_THAT(detail, Not(HasSubstr("pass@")));
    EXPECT_EQ(client.Fault(), cms::ConnectionFault::kBadAddress);
  }
}

// --- Names ---------------------------------------------------------------------------------------

std::atomic<bool> answers{false};
std::atomic<int> asked{0};

std::vector<cms::IpAddress> SilentResolver(const std::string&) {
  ++asked;
  while (!answers.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return {cms::IpAddress(0x7F000001)};
}

class Names : public testing::Test {
 protected:
  Names() {
    answers = false;
    asked = 0;
    cms::SetResolver(&SilentResolver);
  }
  ~Names() override {
    answers = true;
    cms::SetResolver(nullptr);
  }
};

TEST_F(Names, ClosingEndsAnOpeningThatWaitsForTheResolver) {
  ScriptedRtspServer server;
  const std::string url = "rtsp://camera.invalid:" + std::to_string(server.Port()) + "/live";
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(url, cms::kRtspTransportInterleaved);
  config.connectTimeoutMs = 600'000;
  client.SetConfig(&config);
  int opened = -1;
  std::thread opening([&] { opened = client.OpenStream(); });
  ASSERT_TRUE(WaitFor([&] { return asked == 1; }));
  client.CloseStream();
  opening.join();
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kCancelled);

  // The next opening joins the question that is still open.
  std::thread again([&] { opened = client.OpenStream(); });
  answers = true;
  again.join();
  EXPECT_EQ(opened, 1) << client.GetConnectionStatus().detail;
}

TEST_F(Names, AnOpeningWaitsForTheResolverNoLongerThanForTheConnection) {
  RtspTestClient client;
  cms::stRTSPClientConfig config =
      ConfigFor("rtsp://slow.invalid/live", cms::kRtspTransportInterleaved);
  config.connectTimeoutMs = 100;
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kUnreachable);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("looked up"));
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(asked, 1) << "one thread for a name, however often it is asked for";
}

}  // namespace
