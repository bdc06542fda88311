#include "cms/streaming/login.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "cms/streaming/internal/challenges.h"
#include "cms/streaming/internal/digest_line.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/data_file.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"

namespace {

using cms::Login;
using test::ScriptedCamera;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kNonce[] = "6fe8a1b2c3d4e5f60718293a4b5c6d7e";

// The header lines of tests/data/challenges, with that nonce.
std::string ChallengeLines(const std::string& file) {
  std::string lines;
  for (const char c : test::ReadDataFile("challenges/" + file + ".txt")) {
    lines += c == '\n' ? "\r\n" : std::string(1, c);
  }
  const std::size_t at = lines.find("NONCE");
  return at == std::string::npos ? lines : lines.replace(at, 5, kNonce);
}

std::string Unauthorized(const std::string& lines) {
  return "HTTP/1.1 401 Unauthorized\r\n" + lines + "\r\n";
}

Login LoginOf(const std::string& user = "admin", const std::string& password = "secret") {
  Login login;
  login.SetCredentials(user, password);
  return login;
}

// How a camera may spell its challenge, and what the answer must have besides the right digest.
struct Form {
  const char* file;
  ScriptedCamera::Auth auth;
  const char* answer = "";
};

constexpr auto kDigest = ScriptedCamera::Auth::kDigest;
constexpr auto kBasic = ScriptedCamera::Auth::kBasic;

class ChallengeForms : public testing::TestWithParam<Form> {};
INSTANTIATE_TEST_SUITE_P(
    , ChallengeForms,
    testing::Values(
        Form{"realm_nonce", kDigest}, Form{"nonce_first", kDigest},
        Form{"qop_first", kDigest,
             ", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\", qop=auth, nc=00000001, cnonce=\""},
        Form{"domain_between", kDigest, ", algorithm=MD5, opaque=\"\", qop=auth, nc="},
        Form{"algorithm_between", kDigest, ", algorithm=MD5\r\n"},
        Form{"charset_between", kDigest, ", algorithm=MD5, qop=auth, nc=00000001, "},
        Form{"integrity_only", kDigest, ", qop=auth-int, nc=00000001, "},
        Form{"lower_case", kDigest}, Form{"long_cookies_in_front", kDigest},
        Form{"folded", kDigest}, Form{"odd_blanks", kDigest},
        Form{"without_commas", kDigest, ", qop=auth, "}, Form{"basic_first", kDigest},
        Form{"basic_first_in_one_line", kDigest, ", qop=auth, "},
        Form{"sha256_first", kDigest, ", algorithm=SHA-256, qop=auth, "},
        Form{"sha256_last", kDigest, ", algorithm=SHA-256, qop=auth, "},
        Form{"session_of_md5", kDigest, ", algorithm=MD5-sess, qop=auth, "},
        Form{"unknown_schemes_in_front", kDigest}, Form{"basic", kBasic},
        Form{"basic_without_quotes", kBasic}, Form{"basic_without_realm", kBasic},
        Form{"sha256_or_basic", kDigest, ", algorithm=SHA-256, "}),
    [](const auto& form) { return form.param.file; });

TEST_P(ChallengeForms, LogInAtAnRtspCamera) {
  const ScriptedCamera camera{.auth = GetParam().auth};
  test::ScriptedRtspServer server(camera);
  server.SetNonce(kNonce);
  server.On("*", [&](const test::RtspRequest& request) {
    return HasCredentials(camera, kNonce, request)
               ? server.GoodAnswer(request)
               : "RTSP/1.0 401 Unauthorized\r\nCSeq: " + request.Header("CSeq") + "\r\n" +
                     ChallengeLines(GetParam().file) + "\r\n";
  });
  test::RtspTestClient client;
  cms::stRTSPClientConfig config =
      test::ConfigFor(server.UrlFor("admin", "secret"), cms::kRtspTransportInterleaved);
  config.allowBasic = GetParam().auth == kBasic;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  const auto requests = server.Requests();
  ASSERT_GE(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("Authorization"), "");
  EXPECT_THAT(requests[1].text, HasSubstr(GetParam().answer));
  std::set<std::string> answers;
  for (const test::RtspRequest& request : requests) {
    const std::string answer = request.Header("Authorization");
    EXPECT_TRUE(GetParam().auth == kBasic || answers.insert(answer).second) << answer;
    EXPECT_THAT(request.text, Not(HasSubstr("secret")));
  }
}

// RFC 2617, 3.5, and the same request without a qop (made with md5sum).
TEST(Login, DigestsAreThoseOfTheRfc) {
  cms::DigestInput input{"Mufasa",
                         "Circle Of Life",
                         "testrealm@host.com",
                         "dcd98b7102dd2f0e8b11d0f600bfb0c093",
                         "GET",
                         "/dir/index.html",
                         "auth",
                         "00000001",
                         "0a4f113b"};
  EXPECT_EQ(cms::DigestResponse(input), "6629fae49393a05397450978507c4ef1");
  input.qop = {};
  EXPECT_EQ(cms::DigestResponse(input), "670fd8c2df070c60b045671b8b24ff02");

  // RFC 7616, 3.9.1.
  input.realm = "http-auth@example.org";
  input.password = "Circle of Life";
  input.nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
  input.cnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
  input.qop = "auth";
  EXPECT_EQ(cms::DigestResponse(input), "8ca523f5e9506fed4657c9700eebdbec");
  input.hash = &cms::Sha256Hex;
  EXPECT_EQ(cms::DigestResponse(input),
            "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1");
}

TEST(Login, NamesWhatItCannotDo) {
  const struct {
    const char* lines;
    const char* problem;
  } cases[] = {
      {"WWW-Authenticate: Digest realm=\"r\", algorithm=SHA-1, nonce=\"n\"\r\n",
       "the login method is Digest with SHA-1, which is not supported"},
      {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=\"MD5-sess\"\r\n"
       "WWW-Authenticate: NTLM\r\n",
       "the login method is Digest with MD5-sess without qop or NTLM, which is not supported"},
      {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth-conf\"\r\n",
       "the login method is Digest with qop auth-conf, which is not supported"},
      {"WWW-Authenticate: Digest realm=\"r\"\r\n",
       "the login method is Digest without a nonce, which is not supported"},
      {"WWW-Authenticate: realm=\"r\", nonce=\"n\"\r\n", "no login method is named"},
      {"X-WWW-Authenticate: Basic realm=\"r\"\r\n", "no login method is named"},
      {"\r\nWWW-Authenticate: Basic realm=\"in the body\"\r\n", "no login method is named"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.lines);
    Login login = LoginOf();
    EXPECT_FALSE(login.ReadChallenges(Unauthorized(each.lines)));
    EXPECT_EQ(login.Problem(), each.problem);
    EXPECT_EQ(login.AuthorizationLine("GET", "/"), "");
  }
}

TEST(Login, AnUnsupportedLoginMethodIsTheConnectionsFault) {
  test::ScriptedRtspServer server;
  server.On("*", [](const test::RtspRequest& request) {
    return test::RtspResponse(
        request, 401, "Unauthorized",
        {{"WWW-Authenticate", "Digest realm=\"r\", nonce=\"n\", algorithm=SHA-512-256"}});
  });
  test::RtspTestClient client;
  cms::stRTSPClientConfig config =
      test::ConfigFor(server.UrlFor("admin", "secret"), cms::kRtspTransportInterleaved);
  client.SetConfig(&config);
  EXPECT_EQ(client.OpenStream(), 0);
  EXPECT_EQ(client.Fault(), cms::ConnectionFault::kPasswordRefused);
  EXPECT_THAT(client.GetConnectionStatus().detail,
              HasSubstr("the login method is Digest with SHA-512-256"));
  EXPECT_EQ(server.Requests().size(), 1u) << "a wrong answer would count as a failed login";
}

TEST(Login, TheLastUsableChallengeStaysAndItsRequestsAreCounted) {
  Login login = LoginOf();
  ASSERT_TRUE(login.ReadChallenges(Unauthorized(ChallengeLines("qop_first"))));
  EXPECT_THAT(login.AuthorizationLine("GET", "/"), HasSubstr("nc=00000001, "));
  EXPECT_FALSE(login.ReadChallenges("HTTP/1.1 401 Unauthorized\r\n\r\n"));
  EXPECT_THAT(login.AuthorizationLine("GET", "/"), HasSubstr("nc=00000002, "));
  ASSERT_TRUE(login.ReadChallenges(Unauthorized(ChallengeLines("qop_first"))));
  EXPECT_EQ(login.Problem(), "");
  EXPECT_THAT(login.AuthorizationLine("GET", "/"), HasSubstr("nc=00000001, "));
  login.ForgetChallenge();
  EXPECT_EQ(login.AuthorizationLine("GET", "/"), "");
}

TEST(Login, EscapesOfTheRealmAreNotPartOfTheDigest) {
  Login login = LoginOf("a\"b\\c", "p");
  ASSERT_TRUE(login.ReadChallenges(
      Unauthorized("WWW-Authenticate: Digest realm=\"say \\\"hi\\\" D\\x\", nonce=\"n\"\r\n")));
  const std::string line = login.AuthorizationLine("GET", "/\r\nX: 1");
  const std::string response =
      cms::DigestResponse({"a\"b\\c", "p", "say \"hi\" D\\x", "n", "GET", "/X: 1", {}, {}, {}});
  EXPECT_EQ(line,
            "Authorization: Digest username=\"a\\\"b\\\\c\", realm=\"say \\\"hi\\\" D\\x\", "
            "nonce=\"n\", uri=\"/X: 1\", response=\"" +
                response + "\"\r\n");
}

TEST(Login, WhatACameraSendsIsBounded) {
  std::string lines;
  for (int i = 0; i < 1000; ++i) {
    lines += "WWW-Authenticate: Scheme" + std::to_string(i) + " a=b\r\n";
  }
  std::string parameters;
  for (int i = 0; i < 1000; ++i) {
    parameters += ", p" + std::to_string(i) + "=v";
  }
  EXPECT_EQ(cms::ReadChallenges(Unauthorized(lines)).size(), cms::kMaxChallenges);
  const auto one = cms::ReadChallenges(
      Unauthorized("WWW-Authenticate: Digest realm=\"" +
                   std::string(cms::Challenge::kMaxValue + 1, 'r') + "\"" + parameters + "\r\n"));
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].parameters.size(), cms::Challenge::kMaxParameters);
  EXPECT_EQ(one[0].Find("realm"), nullptr);
  Login login = LoginOf();
  EXPECT_FALSE(login.ReadChallenges(Unauthorized(lines)));
  EXPECT_LT(login.Problem().size(), 300u);
}

class LoginAtTheLibrarysServer : public test::HttpServerTest {};

TEST_F(LoginAtTheLibrarysServer, IsAnsweredAsItAsks) {
  On("/auth/status", [](HttpRequest* request, const char*, std::uint32_t) {
    RequestWrite(request, "inside");
    return 1;
  });
  Start();
  const auto ask = [&](Login& login) {
    const std::string target = "/auth/status?a=1,2";
    const std::string first = Ask(test::Request(target));
    EXPECT_THAT(first, StartsWith("HTTP/1.1 401 "));
    EXPECT_TRUE(login.ReadChallenges(first)) << login.Problem();
    return Ask(test::Request(target, login.AuthorizationLine("GET", target)));
  };
  for (const int strict : {0, 1}) {
    EnableStrictDigest(server_, strict);
    EnableWholeRequests(server_, strict);
    Login right = LoginOf("operator", "secret");
    EXPECT_THAT(ask(right), HasSubstr("inside"));
    Login wrong = LoginOf("operator", "Secret");
    EXPECT_THAT(ask(wrong), StartsWith("HTTP/1.1 401 "));
  }
}

}  // namespace
