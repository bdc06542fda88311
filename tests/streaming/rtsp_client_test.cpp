#include "cms/streaming/rtsp_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/flat_jpeg.h"
#include "tests/support/process_state.h"
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
using testing::MatchesRegex;
using testing::Not;

namespace {

constexpr char kAgent[] = "User-Agent: Orvanta_CMS v2009.11.02\r\n";

// Sends pictures until the client has been handed a frame: reception starts behind a frame end.
void SendUntilFrames(ScriptedRtspServer& server, const RtspTestClient& client, std::size_t frames) {
  H264Packets packets;
  ASSERT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    server.SendRtp(0, packets.KeyFrame());
    return client.Video().size() >= frames;
  }));
}

class BothTransports : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(, BothTransports,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved),
                         [](const auto& transport) {
                           return transport.param == cms::kRtspTransportUdp ? "Udp" : "Interleaved";
                         });

TEST_P(BothTransports, SendsTheRequestsToTheByteAndHandsFramesOn) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  config.streamNumber = 2;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  ASSERT_EQ(client.Play(), 1);
  SendUntilFrames(server, client, 3);
  ASSERT_TRUE(WaitFor([&] {
    // Interleaved, a packet is handed on when the next one shows that it was whole.
    server.SendRtp(1, test::RtpText({.payloadType = 0}, std::string(160, 'a')));
    return !client.Audio().empty();
  }));
  client.StopPlay();
  client.CloseStream();

  std::vector<std::string> texts;
  for (const RtspRequest& request : server.Requests()) {
    texts.push_back(request.text);
  }
  ASSERT_GE(texts.size(), 6u);
  const std::string url = server.Url();
  const std::string agent = kAgent;
  EXPECT_EQ(texts[0], "OPTIONS " + url + " RTSP/1.0\r\nCSeq: 1\r\n" + agent + "\r\n");
  EXPECT_EQ(texts[1], "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 2\r\nAccept: application/sdp\r\n" +
                          agent + "\r\n");
  const std::string transport = GetParam() == cms::kRtspTransportUdp
                                    ? "Transport: RTP/AVP;unicast;client_port=[0-9]+-[0-9]+\r\n"
                                    : "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
  EXPECT_THAT(texts[2], MatchesRegex("SETUP " + url + "/trackID=0 RTSP/1.0\r\nCSeq: 3\r\n" +
                                     transport + agent + "\r\n"));
  if (GetParam() == cms::kRtspTransportInterleaved) {
    EXPECT_THAT(texts[3], HasSubstr("interleaved=2-3\r\n"));
  }
  EXPECT_THAT(texts[3], HasSubstr("SETUP " + url +
                                  "/trackID=1 RTSP/1.0\r\nCSeq: 4\r\n"
                                  "Session: 3BA1C0DE\r\nTransport: "));
  EXPECT_EQ(texts[4],
            "PLAY " + url + "/ RTSP/1.0\r\nCSeq: 5\r\nSession: 3BA1C0DE\r\n" + agent + "\r\n");
  EXPECT_THAT(texts.back(), MatchesRegex("TEARDOWN " + url +
                                         "/ RTSP/1.0\r\nCSeq: [0-9]+\r\n"
                                         "Session: 3BA1C0DE\r\n" +
                                         agent + "\r\n"));

  const auto frame = client.Video().at(0);
  const std::string startCode("\0\0\0\1", 4);
  EXPECT_EQ(frame.type, 1);
  EXPECT_EQ(frame.payload, startCode + "\x67\x42" + std::string(10, 's') + startCode + "\x68qqq" +
                               startCode + "\x65\x88" + std::string(98, 'i'));
  ASSERT_EQ(frame.header.size(), 116u);
  EXPECT_EQ(frame.header.substr(0, 4), std::string("@2\x10\x18", 4)) << "stream number 2";
  const auto number = [&](std::size_t at) {
    return static_cast<unsigned char>(frame.header[at]) +
           256u * static_cast<unsigned char>(frame.header[at + 1]);
  };
  EXPECT_EQ(number(4), frame.payload.size() + 32);
  EXPECT_EQ(number(18), 116u);
  EXPECT_EQ(number(20), 1u);
  EXPECT_EQ(client.Video().at(1).header[20], 2);
  EXPECT_EQ(client.Audio().at(0).payload, std::string(160, 'a'));
  EXPECT_EQ(client.Audio().at(0).header.substr(4, 4), std::string("\xA0\0\0\0", 4));
}

TEST_P(BothTransports, ReadsAnswersThatComeByteByByteAndBodiesThatComeLate) {
  ScriptedRtspServer server;
  server.On("OPTIONS", [&](const RtspRequest& r) {
    return RtspAnswer::InSegments(server.GoodAnswer(r), 1, std::chrono::milliseconds(0));
  });
  server.On("DESCRIBE", [&](const RtspRequest& r) {
    const std::string whole = server.GoodAnswer(r);
    const std::size_t body = whole.find("\r\n\r\n") + 4;
    return RtspAnswer(whole.substr(0, body))
        .Pause(std::chrono::milliseconds(50))
        .Then(whole.substr(body, 20))
        .Pause(std::chrono::milliseconds(50))
        .Then(whole.substr(body + 20));
  });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  EXPECT_EQ(client.GetVideoEncoding(), "H264");
  EXPECT_EQ(client.GetAudioEncoding(), "PCMU");
}

TEST(CMSRTSPClient, LosesNoFrameAroundTheAnswersInTheInterleavedStream) {
  ScriptedRtspServer server;
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(client, ConfigFor(server.Url(), cms::kRtspTransportInterleaved)));
  H264Packets packets;
  std::string bytes;
  const auto add = [&](const std::vector<std::string>& frame) {
    for (const std::string& packet : frame) {
      bytes += test::InterleavedBlock(0, packet);
    }
  };
  add(packets.Picture());
  for (int i = 0; i < 50; ++i) {
    add(packets.KeyFrame());
    bytes += "RTSP/1.0 200 OK\r\nCSeq: 99\r\n\r\n";  // as a keep-alive's answer lies in between
    add(packets.Picture());
    bytes += "RTSP/1.0 200 OK\r\nCSeq: 99\r\nContent-Length: 5\r\n\r\n$\1\0\1x";
    bytes += "OPTIONS rtsp://client RTSP/1.0\r\nCSeq: 7\r\n\r\n";
  }
  ASSERT_TRUE(server.SendRaw(bytes));
  EXPECT_TRUE(WaitFor([&] { return client.Video().size() == 100; })) << client.Video().size();
  cms::CMSFrameData data;
  client.GetFrameData(&data, sizeof data);
  EXPECT_EQ(data.lostPackets, 0u);
  EXPECT_EQ(data.keyFrames, 50u);
}

TEST(CMSRTSPClient, CountsLostPacketsAndOversizeFrames) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  config.mostFrameBytes = 500'000;
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1);
  client.Play();
  H264Packets packets;
  server.SendRtp(0, packets.Picture());
  server.SendRtp(0, packets.KeyFrame(60'000));
  packets.Skip(3);
  server.SendRtp(0, packets.KeyFrame());
  cms::CMSFrameData data;
  EXPECT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    client.GetFrameData(&data, sizeof data);
    return data.lostPackets > 0;
  }));
  EXPECT_EQ(data.lostPackets, 3u);
  EXPECT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    server.SendRtp(0, packets.KeyFrame(500'001));
    client.GetFrameData(&data, sizeof data);
    return data.oversizeFrames > 0;
  }));
}

// --- Passwords ----------------------------------------------------------------------------------

struct Login {
  const char* name;
  ScriptedCamera::Auth auth;
  int transport;
};

class Logins : public testing::TestWithParam<Login> {};
INSTANTIATE_TEST_SUITE_P(
    , Logins,
    testing::Values(Login{"DigestUdp", ScriptedCamera::Auth::kDigest, cms::kRtspTransportUdp},
                    Login{"DigestTcp", ScriptedCamera::Auth::kDigest,
                          cms::kRtspTransportInterleaved},
                    Login{"BasicUdp", ScriptedCamera::Auth::kBasic, cms::kRtspTransportUdp}),
    [](const auto& login) { return login.param.name; });

TEST_P(Logins, LogsInAfterTheChallengeAndSendsNoCredentialsBefore) {
  ScriptedRtspServer server({.auth = GetParam().auth});
  RtspTestClient client;
  cms::stRTSPClientConfig config =
      ConfigFor(server.UrlFor("admin", "secret"), GetParam().transport);
  config.allowBasic = true;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  const auto requests = server.Requests();
  EXPECT_EQ(requests[0].Header("Authorization"), "");
  int cseq = 0;
  for (const RtspRequest& request : requests) {
    EXPECT_EQ(request.Header("CSeq"), std::to_string(++cseq));
    EXPECT_THAT(request.text, Not(HasSubstr("secret")));
  }
  EXPECT_EQ(server.Count("OPTIONS") + server.Count("DESCRIBE"), 3u) << "one challenge in all";
}

TEST_P(Logins, AWrongPasswordIsToldApartAndTriedOnceOnly) {
  ScriptedRtspServer server({.auth = GetParam().auth});
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.UrlFor("admin", "wrong"), GetParam().transport);
  config.allowBasic = true;
  client.SetConfig(&config);
  ASSERT_EQ(client.KeepOpen(), 1);
  ASSERT_TRUE(WaitFor([&] {
    return client.GetConnectionStatus().state == cms::ConnectionState::kWaiting &&
           client.Fault() != cms::ConnectionFault::kNone;
  }));
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kPasswordRefused);
  EXPECT_THAT(client.GetConnectionStatus().detail, Not(HasSubstr("wrong\"")));
  EXPECT_GE(client.GetConnectionStatus().retryInMs, 250'000u) << "no camera locks its account";
  std::size_t logins = 0;
  for (const RtspRequest& request : server.Requests()) {
    logins += request.Header("Authorization").empty() ? 0 : 1;
  }
  EXPECT_EQ(logins, 1u);
  EXPECT_EQ(server.Connections().size(), 1u);
}

TEST(CMSRTSPClient, AnAnswersStaleNonceDuringKeepAliveCostsNothing) {
  ScriptedRtspServer server({.session = "abc;timeout=2", .auth = ScriptedCamera::Auth::kDigest});
  RtspTestClient client;
  ASSERT_TRUE(test::Plays(
      client, ConfigFor(server.UrlFor("admin", "secret"), cms::kRtspTransportInterleaved)));
  server.SetNonce("a-new-nonce");
  H264Packets packets;
  ASSERT_TRUE(WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    return server.Count("GET_PARAMETER") >= 3;
  }));
  const auto requests = server.Requests("GET_PARAMETER");
  EXPECT_THAT(requests[1].Header("Authorization"), HasSubstr("a-new-nonce"));
  EXPECT_EQ(server.Connections().size(), 1u);
}

// --- Servers that refuse, lie or fall silent ----------------------------------------------------

struct Refusal {
  const char* name;
  const char* method;
  std::function<RtspAnswer(ScriptedRtspServer&, const RtspRequest&)> answer;
  cms::ConnectionFault fault;
};

std::string Status(const RtspRequest& request, int status) {
  return test::RtspResponse(request, status, "Whatever");
}

const Refusal kRefusals[] = {
    {"NotFound", "DESCRIBE", [](auto&, auto& r) { return Status(r, 404); },
     cms::ConnectionFault::kNoSuchStream},
    {"NotEnoughBandwidth", "SETUP", [](auto&, auto& r) { return Status(r, 453); },
     cms::ConnectionFault::kCameraFull},
    {"Unavailable", "DESCRIBE", [](auto&, auto& r) { return Status(r, 503); },
     cms::ConnectionFault::kCameraFull},
    {"UnsupportedTransport", "SETUP", [](auto&, auto& r) { return Status(r, 461); },
     cms::ConnectionFault::kTransportRefused},
    {"Forbidden", "DESCRIBE", [](auto&, auto& r) { return Status(r, 403); },
     cms::ConnectionFault::kPasswordRefused},
    {"LoginWithoutCredentials", "DESCRIBE",
     [](auto&, auto& r) {
       return test::RtspResponse(r, 401, "Unauthorized",
                                 {{"WWW-Authenticate", "Basic realm=\"x\""}});
     },
     cms::ConnectionFault::kPasswordRefused},
    {"InternalError", "PLAY", [](auto&, auto& r) { return Status(r, 500); },
     cms::ConnectionFault::kRefused},
    {"SilentOptions", "OPTIONS", [](auto&, auto&) { return RtspAnswer(); },
     cms::ConnectionFault::kNoAnswer},
    {"SilentPlay", "PLAY", [](auto&, auto&) { return RtspAnswer(); },
     cms::ConnectionFault::kNoAnswer},
    {"ClosesAtOptions", "OPTIONS", [](auto&, auto&) { return RtspAnswer().Close(); },
     cms::ConnectionFault::kClosedByCamera},
    {"ResetsAtSetup", "SETUP", [](auto&, auto&) { return RtspAnswer().Reset(); },
     cms::ConnectionFault::kClosedByCamera},
    {"NoBlankLine", "OPTIONS", [](auto&, auto&) { return "RTSP/1.0 200 OK\r\nCSeq: 1\r\n"; },
     cms::ConnectionFault::kNoAnswer},
    {"EndlessHeaders", "DESCRIBE",
     [](auto&, auto&) {
       return RtspAnswer("RTSP/1.0 200 OK\r\n")
           .Endless("X-More: " + std::string(1000, 'x') + "\r\n");
     },
     cms::ConnectionFault::kNoAnswer},
    {"BodyShorterThanItsLength", "DESCRIBE",
     [](auto& s, auto& r) { return test::WithHeader(s.GoodAnswer(r), "Content-Length", "100000"); },
     cms::ConnectionFault::kNoAnswer},
    {"HugeContentLength", "DESCRIBE",
     [](auto& s, auto& r) {
       return test::WithHeader(s.GoodAnswer(r), "Content-Length", "99999999999999");
     },
     cms::ConnectionFault::kNoAnswer},
    {"NoDescription", "DESCRIBE", [](auto&, auto& r) { return Status(r, 200); },
     cms::ConnectionFault::kNoUsableVideo},
    {"UnknownCodec", "DESCRIBE",
     [](auto&, auto& r) {
       return test::RtspResponse(r, 200, "OK", {{"Content-Type", "application/sdp"}},
                                 "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H266/90000\r\n");
     },
     cms::ConnectionFault::kNoUsableVideo},
    {"SessionOfTenKiB", "SETUP",
     [](auto& s, auto& r) {
       return test::WithHeader(s.GoodAnswer(r), "Session", std::string(10240, 'S'));
     },
     cms::ConnectionFault::kBadAnswer},
    {"NoSession", "SETUP",
     [](auto& s, auto& r) { return test::WithoutHeader(s.GoodAnswer(r), "Session"); },
     cms::ConnectionFault::kBadAnswer},
    {"ImpossiblePorts", "SETUP",
     [](auto& s, auto& r) {
       return test::WithHeader(s.GoodAnswer(r), "Transport",
                               "RTP/AVP;unicast;server_port=70000-70001");
     },
     cms::ConnectionFault::kBadAnswer},
};

class Refusals : public testing::TestWithParam<Refusal> {};
INSTANTIATE_TEST_SUITE_P(, Refusals, testing::ValuesIn(kRefusals),
                         [](const auto& refusal) { return refusal.param.name; });

TEST_P(Refusals, AreNamedAndLeaveNothingBehind) {
  ScriptedRtspServer server;
  server.On(GetParam().method,
            [&](const RtspRequest& request) { return GetParam().answer(server, request); });
  RtspTestClient client;
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), transport);
    config.answerTimeoutMs = 300;
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 0);  // the group's threads and descriptors exist from here on
    EXPECT_EQ(client.Fault(), GetParam().fault) << client.GetConnectionStatus().detail;
    EXPECT_NE(client.GetConnectionStatus().detail, "");
  }
  ASSERT_TRUE(WaitFor([&] { return server.OpenConnections() == 0; }));
  const std::size_t descriptors = test::OpenDescriptors();
  EXPECT_EQ(client.OpenStream(), 0);
  ASSERT_TRUE(WaitFor([&] { return server.OpenConnections() == 0; }));
  EXPECT_LE(test::OpenDescriptors(), descriptors);
}

TEST(CMSRTSPClient, NamesWhatIsWrongWithAnAddress) {
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor("http://127.0.0.1/", cms::kRtspTransportUdp);
  EXPECT_EQ(client.SetConfig(&config), 0);
  EXPECT_EQ(client.OpenStream(), 0);
  config.path = "rtsp://no-such-host.invalid/live";
  EXPECT_EQ(client.SetConfig(&config), 1);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kBadAddress);
  config.path = "rtsp://127.0.0.1:1/live";
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kUnreachable);
  EXPECT_THAT(client.GetConnectionStatus().detail, HasSubstr("127.0.0.1:1"));
}

TEST(CMSRTSPClient, BuildsTheUrlOfAnAddressAndAPath) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor("/live", cms::kRtspTransportInterleaved);
  config.kind = 1;
  config.address = 0x7F000001;
  config.port = server.Port();
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  EXPECT_THAT(server.Requests()[0].text, HasSubstr("OPTIONS rtsp://127.0.0.1/live RTSP/1.0"));
}

TEST(CMSRTSPClient, FollowsTheControlAddressesOfTheDescription) {
  struct Case {
    const char* session;
    const char* media;
    std::string expected;  // by the described rules
    std::string today;     // else
  };
  ScriptedRtspServer other;
  const std::string url = "rtsp://127.0.0.1";
  const Case cases[] = {
      {"a=control:*\r\n", "trackID=0", "{url}/trackID=0", "{url}/trackID=0"},
      {"a=control:{url}/\r\n", "trackID=0", "{url}/trackID=0", "{url}/trackID=0"},
      {"a=control:part\r\n", "trackID=0", "part/trackID=0", "{url}/part/trackID=0"},
      {"", "/trackID=0", "{url}/trackID=0", "{server}/trackID=0"},
      {"a=control:rtsp://else/\r\n", "{url}/absolute", "{url}/absolute", "{url}/absolute"}};
  for (std::size_t i = 0; i < 2 * std::size(cases); ++i) {
    const Case& each = cases[i / 2];
    const bool asSpecified = i % 2 != 0;
    ScriptedRtspServer server;
    const auto fill = [&](std::string text) {
      for (std::size_t at; (at = text.find("{url}")) != std::string::npos;) {
        text.replace(at, 5, server.Url());
      }
      if (const std::size_t at = text.find("{server}"); at != std::string::npos) {
        text.replace(at, 8, server.Url().substr(0, server.Url().rfind('/')));
      }
      return text;
    };
    server.On("DESCRIBE", [&](const RtspRequest& r) {
      return test::RtspResponse(r, 200, "OK", {},
                                fill(std::string("v=0\r\n") + each.session +
                                     "m=video 0 RTP/AVP 26\r\na=control:" + each.media + "\r\n"));
    });
    server.On("SETUP", [&](const RtspRequest& r) {
      return test::RtspResponse(r, 200, "OK", {{"Session", "1"}});
    });
    server.On("PLAY", [&](const RtspRequest& r) { return Status(r, 200); });
    RtspTestClient client;
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportUdp);
    config.todaysCameras = !asSpecified;
    client.SetConfig(&config);
    EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
    ASSERT_EQ(server.Count("SETUP"), 1u);
    EXPECT_EQ(server.Requests("SETUP")[0].url, fill(asSpecified ? each.expected : each.today));
  }
}

TEST(CMSRTSPClient, ClosingEndsAnOpeningThatWaits) {
  ScriptedRtspServer server;
  server.On("DESCRIBE", [](const RtspRequest&) { return RtspAnswer(); });
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  config.answerTimeoutMs = 600'000;
  client.SetConfig(&config);
  int opened = -1;
  std::thread opening([&] { opened = client.OpenStream(); });
  ASSERT_TRUE(WaitFor([&] { return server.Count("DESCRIBE") == 1; }));
  client.CloseStream();
  opening.join();
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kCancelled);
  server.On("DESCRIBE", [&](const RtspRequest& r) { return server.GoodAnswer(r); });
  EXPECT_EQ(client.OpenStream(), 1) << "a closed client can be opened again";
}

TEST_P(BothTransports, ManyRoundsLeakNothing) {
  ScriptedRtspServer server;
  RtspTestClient client;
  cms::stRTSPClientConfig config = ConfigFor(server.Url(), GetParam());
  client.SetConfig(&config);
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  const char* const wanted = std::getenv("ORVANTA_TEST_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : 100;
  for (int round = 0; round < rounds; ++round) {
    ASSERT_EQ(client.OpenStream(), 1) << round << client.GetConnectionStatus().detail;
    ASSERT_EQ(client.Play(), 1);
    ASSERT_EQ(client.CloseStream(), 1);
    ASSERT_TRUE(WaitFor([&] { return server.OpenConnections() == 0; }));
    if (round == 5) {
      descriptors = test::OpenDescriptors();
      threads = test::RunningThreads();
    }
  }
  EXPECT_TRUE(WaitFor([&] { return test::OpenDescriptors() <= descriptors; }));
  EXPECT_TRUE(WaitFor([&] { return test::RunningThreads() <= threads + 1; }));
}

// Frames of a damaged stream open the decoder again and again; none does so behind the switch.
TEST(CMSRTSPClient, DecodingThatIsSwitchedOffUnderAFrameStaysOff) {
  for (int round = 0; round < 50; ++round) {
    RtspTestClient client;
    client.CMSClientBase::SetMustDecode(1);
    client.EnableDecode(0, 0);
    ASSERT_EQ(client.Channel(0)->InitialCodec(cms::CMS_CODEC_MJPEG), 1);
    std::atomic<bool> stop{false};
    std::atomic<int> given{0};
    std::thread receiver([&] {
      unsigned char header[116] = {};
      unsigned char damaged[256] = {0xFF, 0xD8};
      while (!stop) {
        client.OnGetVideoFrame(header, sizeof header, damaged, 100, 0, 1);
        ++given;
      }
    });
    ASSERT_TRUE(WaitFor([&] { return given > 2; }));
    client.SetMustDecode(0);
    stop = true;
    receiver.join();
    const auto jpeg = test::FlatJpeg({{1, 2, 3}}, 1, {2, 2});
    std::vector<unsigned char> padded(jpeg.begin(), jpeg.end());
    padded.resize(jpeg.size() + CMSDecoder::kInputPadding);
    EXPECT_EQ(client.Channel(0)->DecodeFrame(padded.data(), static_cast<int>(jpeg.size())), -1)
        << "the decoder is open";
  }
}

}  // namespace
