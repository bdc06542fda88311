// Digest authentication: the rules, and the clients that people use.
#include <atomic>
#include <fstream>

#include "cms/exports/http_server_exports.h"
#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/digest.h"
#include "cms/streaming/login.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/faulty_file_io.h"

namespace {

using cms::DigestResult;
using cms::Md5Hex;
using test::Request;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// An honest client's parameters, computed here from the RFC and the server's own rule.
struct Client {
  std::string user = "operator";
  std::string password = "secret";
  std::string realm = "QNV";
  std::string uri = "/auth/live?x=1";
  std::string method = "GET";
  std::string nonce = "n0nce";
  std::string nc = "00000001";
  std::string cnonce = "c1ient";
  std::string qop = "auth";

  std::string Response() const {
    const std::string ha1 = Md5Hex(user + ":" + realm + ":" + password);
    const std::string ha2 = Md5Hex(method + ":" + uri);
    if (qop == "auth") {
      return Md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
    }
    if (qop == "auth-int") {
      return Md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + nc + ":auth-int:" + ha2);
    }
    return Md5Hex(ha1 + ":" + nonce + ":" + ha2);
  }
  std::string Parameters() const {
    return "username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce + "\", uri=\"" +
           uri + "\", response=\"" + Response() + "\", algorithm=MD5, opaque=\"\", qop=" + qop +
           ", nc=" + nc + ", cnonce=\"" + cnonce + "\"";
  }
};

DigestResult Verify(const std::string& parameters, const std::string& method = "GET") {
  return cms::VerifyDigest(parameters, method, test::OneUser).result;
}

template <class Change>
DigestResult VerifyWith(Change change) {
  Client client;
  change(client);
  return Verify(client.Parameters());
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, text.npos) << from;
  return text.replace(at, from.size(), to);
}

TEST(DigestVerifier, EveryQopAndNothingElse) {
  EXPECT_EQ(Verify(""), DigestResult::kNoneGiven);
  EXPECT_EQ(Verify(Client().Parameters()), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.qop = "auth-int"; }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.qop = ""; }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.qop = "other"; }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.realm = ""; }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.realm = "another"; }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.password = "Secret"; }), DigestResult::kBad);
  EXPECT_EQ(VerifyWith([](Client& c) { c.password = ""; }), DigestResult::kBad);
  EXPECT_EQ(VerifyWith([](Client& c) { c.user = "nobody"; }), DigestResult::kBad);
  EXPECT_EQ(VerifyWith([](Client& c) { c.method = "POST"; }), DigestResult::kBad);
  // The RFC's own auth-int does not verify: nc and cnonce are told apart by it.
  Client rfc;
  rfc.qop = "auth-int";
  const std::string ha1 = Md5Hex("operator:QNV:secret");
  const std::string proper =
      Md5Hex(ha1 + ":n0nce:00000001:c1ient:auth-int:" + Md5Hex("GET:/auth/live?x=1"));
  EXPECT_EQ(Verify(Replaced(rfc.Parameters(), rfc.Response(), proper)), DigestResult::kBad);
}

TEST(DigestVerifier, MissingChangedOrOversizedParameters) {
  const std::string good = Client().Parameters();
  for (const char* name : {"username=", "nonce=", "uri=", "response=", "nc=", "cnonce="}) {
    EXPECT_EQ(Verify(Replaced(good, name, std::string("x") + name)), DigestResult::kBad) << name;
  }
  EXPECT_EQ(Verify(Replaced(good, "uri=\"/auth/live?x=1\"", "uri=\"/auth/live\"")),
            DigestResult::kBad);
  std::string upper = Client().Response();
  for (char& c : upper) {
    c = static_cast<char>(std::toupper(c));
  }
  EXPECT_EQ(Verify(Replaced(good, Client().Response(), upper)), DigestResult::kBad);
  EXPECT_EQ(Verify(Replaced(good, Client().Response(), Client().Response() + "0")),
            DigestResult::kBad);
  EXPECT_EQ(VerifyWith([](Client& c) { c.cnonce = std::string(140, 'c'); }), DigestResult::kGood);
  EXPECT_EQ(VerifyWith([](Client& c) { c.cnonce = std::string(200, 'c'); }), DigestResult::kBad)
      << "more than is ever hashed";
}

TEST(DigestNonces, KnowTheirOwnForALimitedTime) {
  using Verdict = cms::DigestNonces::Verdict;
  constexpr auto kLife = cms::DigestNonces::kLifeMilliseconds;
  const cms::DigestNonces nonces;
  const std::string nonce = nonces.Make(1000);
  EXPECT_NE(nonce, nonces.Make(1001));
  EXPECT_EQ(nonces.Check(nonce, 1000), Verdict::kFresh);
  EXPECT_EQ(nonces.Check(nonce, 1000 + kLife), Verdict::kFresh);
  EXPECT_EQ(nonces.Check(nonce, 1001 + kLife), Verdict::kStale);
  EXPECT_EQ(cms::DigestNonces().Check(nonce, 1000), Verdict::kForeign) << "of another server";
  for (std::size_t at = 0; at < nonce.size(); ++at) {
    std::string changed = nonce;
    changed[at] = changed[at] == '0' ? '1' : '0';
    EXPECT_EQ(nonces.Check(changed, 1000), Verdict::kForeign) << at;
  }
  for (const std::string& ruin : {std::string(), std::string("n0nce"), nonce.substr(1), nonce + "0",
                                  nonce.substr(0, 16), std::string(48, ' ')}) {
    EXPECT_EQ(nonces.Check(ruin, 1000), Verdict::kForeign) << ruin;
  }
}

TEST(StrictDigest, AProofIsForItsTargetItsMethodAndItsTime) {
  const cms::DigestNonces nonces;
  constexpr std::uint64_t kNow = 5000;
  const auto verify = [&](const Client& client, const std::string& target,
                          const std::string& parameters = {}) {
    return cms::VerifyStrictDigest(parameters.empty() ? client.Parameters() : parameters, "GET",
                                   target, test::OneUser, nonces, kNow);
  };
  Client good;
  good.nonce = nonces.Make(kNow);
  EXPECT_EQ(verify(good, good.uri).result, DigestResult::kGood);
  EXPECT_EQ(verify(good, good.uri).userName, "operator");
  EXPECT_EQ(verify(good, "http://host:8080" + good.uri).result, DigestResult::kGood);
  for (const char* other : {"/auth/live", "/auth/live?x=2", "/auth/live?x=1&", "/auth/admin", ""}) {
    EXPECT_EQ(verify(good, other).result, DigestResult::kBad) << other;
  }
  const auto with = [&](auto change) {
    Client client = good;
    change(client);
    return verify(client, client.uri).result;
  };
  EXPECT_EQ(with([](Client& c) { c.method = "PUT"; }), DigestResult::kBad);
  EXPECT_EQ(with([](Client& c) { c.realm = "another"; }), DigestResult::kBad);
  EXPECT_EQ(with([](Client& c) { c.qop = "auth-int"; }), DigestResult::kBad);
  EXPECT_EQ(with([](Client& c) { c.nonce = "n0nce"; }), DigestResult::kBad);
  EXPECT_EQ(with([](Client& c) { c.password = "guessed"; }), DigestResult::kBad);
  EXPECT_EQ(with([](Client& c) { c.nc = ""; }), DigestResult::kBad);
  // Clients of RFC 2069, as the library's own is one, know neither qop nor client nonce.
  Client old = good;
  old.qop = "";
  const std::string plain = "username=\"operator\", realm=\"QNV\", nonce=\"" + old.nonce +
                            "\", uri=\"" + old.uri + "\", response=\"" + old.Response() + "\"";
  EXPECT_EQ(verify(old, old.uri, plain).result, DigestResult::kGood);
  const cms::DigestVerdict late =
      cms::VerifyStrictDigest(good.Parameters(), "GET", good.uri, test::OneUser, nonces,
                              kNow + cms::DigestNonces::kLifeMilliseconds + 1);
  EXPECT_EQ(late.result, DigestResult::kStale);
  EXPECT_EQ(late.userName, "");
}

TEST(DigestFields, SpacesCasesEscapesAndRuins) {
  const auto fields = cms::ParseDigestFields(
      " \t UserName = \"a\\\"b\\\\c\" ,REALM=plain\\,text, unknown=\"x, nonce=1\",,stale , "
      "nonce=n");
  EXPECT_EQ(fields.userName, "a\"b\\c");
  EXPECT_EQ(fields.realm, "plain,text");
  EXPECT_EQ(fields.nonce, "n");
  EXPECT_EQ(cms::ParseDigestFields("nc=1,nc=2").nc, "2");
  for (const char* ruin :
       {"username=\"open", "username=\"open\\", "username", "=", "==\"\"=,=\\"}) {
    EXPECT_THAT(cms::ParseDigestFields(ruin).userName, testing::AnyOf("", "open")) << ruin;
  }
}

class HttpLogin : public test::HttpServerTest {
 protected:
  void SetUp() override {
    HttpServerTest::SetUp();
    On("/auth/live", [](HttpRequest* request, const char* marker, std::uint32_t) {
      std::string user;
      GetUsername(request, user);
      return RequestWriteFormat(request, "hello %s%s", user.c_str(), marker != nullptr ? "!" : "");
    });
    On("/my/authors", [](HttpRequest* request, const char*, std::uint32_t) {
      return RequestWrite(request, "books");
    });
    Start();
  }
  std::string Curl(const std::string& options) {
    return test::RunShell("curl -sS -w '|%{http_code}' " + options).output;
  }
};

TEST_F(HttpLogin, CurlsDigest) {
  const std::string url = "'" + Url("/auth/live?x=1") + "'";
  EXPECT_EQ(Curl("--digest -u operator:secret " + url), "hello operator|200");
  EXPECT_EQ(Curl("--digest -u operator:secret -A Trident " + url), "hello operator|200");
  EXPECT_EQ(Curl("--digest -u operator:secret -X PUT " + url), "hello operator|200");
  EXPECT_EQ(Curl("--digest -u operator:secret -I -o /dev/null " + url), "|200");
  EXPECT_THAT(Curl("--digest -u operator:wrong " + url),
              EndsWith("</H2></BODY>\r\n</HTML>\r\n|401"));
  EXPECT_THAT(Curl("--digest -u nobody:secret " + url),
              HasSubstr("<TITLE>Authentication Error: Access Denied, authentication error.<"));
  EXPECT_THAT(Curl(url),
              HasSubstr("<TITLE>Authentication Error: Access Denied, Authorization required.<"));
  EXPECT_THAT(Curl("--basic -u operator:secret " + url), EndsWith("|401"));
  EXPECT_THAT(Curl("'" + Url("/my/authors") + "'"), EndsWith("|401"))
      << "\"/auth\" anywhere in a name protects it";
}

// Without more a login that was seen opens every target for its method; with strict rules none but
// its own, and only with a nonce of this server.
TEST_F(HttpLogin, WhatAProofOpens) {
  On("/auth/admin", [](HttpRequest* request, const char*, std::uint32_t) {
    return RequestWrite(request, "formatted");
  });
  Client client;
  const auto ask = [&](const std::string& target, const char* method = "GET") {
    return Ask(Request(target, "Authorization: Digest " + client.Parameters() + "\r\n", method));
  };
  EXPECT_THAT(ask(client.uri), StartsWith("HTTP/1.1 200 OK"));
  EXPECT_THAT(ask(client.uri), StartsWith("HTTP/1.1 200 OK")) << "nonces may be used again";
  EXPECT_THAT(ask("/auth/admin?do=format"), EndsWith("formatted"));
  EXPECT_THAT(ask(client.uri, "POST"),
              testing::AllOf(StartsWith("HTTP/1.1 401 Unauthorized"),
                             HasSubstr("\r\nWWW-Authenticate: Digest realm=\"QNV\", domain=")));

  ASSERT_EQ(EnableStrictDigest(server_, 1), 1);
  const std::string refused = ask(client.uri);
  EXPECT_THAT(refused, StartsWith("HTTP/1.1 401 Unauthorized")) << "nobody gave that nonce out";
  const std::string challenge = "\r\nWWW-Authenticate: Digest realm=\"QNV\", nonce=\"";
  ASSERT_THAT(refused, HasSubstr(challenge));
  client.nonce = refused.substr(refused.find(challenge) + challenge.size(), 48);
  EXPECT_THAT(ask(client.uri), EndsWith("hello operator"));
  EXPECT_THAT(ask("/auth/admin?do=format"), StartsWith("HTTP/1.1 401"));
  EXPECT_THAT(ask("/auth/live?x=2"), StartsWith("HTTP/1.1 401"));
  client.uri = "/auth/admin?do=format";
  EXPECT_THAT(ask(client.uri), EndsWith("formatted"));
}

class LaterClock final : public cms::Clock {
 public:
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 1415090977; }
  std::atomic<std::uint64_t> now{1000};
};

TEST_F(HttpLogin, AnOldNonceIsToldToBeStale) {
  CloseHttpServer(server_);
  LaterClock clock;
  cms::ReplaceClock(&clock);
  EnableStrictDigest(server_, 1);
  Start();
  const std::string url = "'" + Url("/auth/live?x=1") + "'";
  const std::string refused = Ask(Request("/auth/live?x=1"));
  Client client;
  client.nonce = refused.substr(refused.find("nonce=\"") + 7, 48);
  clock.now += cms::DigestNonces::kLifeMilliseconds + 1;
  const std::string authorization = "Authorization: Digest " + client.Parameters() + "\r\n";
  EXPECT_THAT(Ask(Request(client.uri, authorization)), HasSubstr("algorithm=MD5, stale=true\r\n"));
  EXPECT_THAT(refused, HasSubstr("stale=false"));
  for (const char* user : {"operator:secret", "operator:wrong"}) {
    EXPECT_EQ(Curl("--digest -o /dev/null -u " + std::string(user) + " " + url),
              user == std::string("operator:secret") ? "|200" : "|401");
  }
  CloseHttpServer(server_);
  cms::ReplaceClock(nullptr);
}

// The proven user counts, wherever else a name stands.
TEST_F(HttpLogin, TheStrongerOfTwoOffersIsTaken) {
  EnableStrictDigest(server_, 1);
  EnableSha256Digest(server_, 1);
  const std::string url = "'" + Url("/auth/live?x=1") + "'";
  const std::string told = Curl("-v --digest -u operator:secret " + url + " 2>&1");
  EXPECT_THAT(told, AllOf(HasSubstr("hello operator|200"), HasSubstr("algorithm=MD5"),
                          testing::ContainsRegex("> Authorization: Digest .*algorithm=SHA-256")));
  EXPECT_THAT(Curl("--digest -u operator:wrong " + url), EndsWith("|401"));
  // This library's client as well.
  cms::Login login;
  const std::string challenges = Ask(Request("/auth/live"));
  login.SetCredentials("operator", "secret");
  ASSERT_TRUE(login.ReadChallenges(challenges));
  const std::string line = login.AuthorizationLine("GET", "/auth/live");
  EXPECT_THAT(line, HasSubstr("SHA-256"));
  EXPECT_THAT(Ask(Request("/auth/live", line)), EndsWith("hello operator"));
}

TEST_F(HttpLogin, NobodyActsUnderAnotherName) {
  Client client;
  const std::string authorization = "Authorization: Digest " + client.Parameters() + "\r\n";
  const std::string forged = "X-username: \"admin\"\r\n";
  for (const int whole : {0, 1}) {
    EnableWholeRequests(server_, whole);
    EXPECT_THAT(Ask(Request(client.uri, forged + authorization)), EndsWith("hello operator"));
    EXPECT_THAT(Ask(Request(client.uri, authorization + forged)), EndsWith("hello operator"));
    EXPECT_THAT(Ask(Request("/auth/live?username=\"admin\"", authorization)),
                EndsWith("hello operator"));
  }
}

TEST_F(HttpLogin, PythonsHandlers) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("login.py"), R"(
import sys, urllib.request, urllib.error
url = sys.argv[1]
def ask(password):
    passwords = urllib.request.HTTPPasswordMgrWithDefaultRealm()
    passwords.add_password(None, url, "operator", password)
    opener = urllib.request.build_opener(urllib.request.HTTPDigestAuthHandler(passwords))
    return opener.open(url, timeout=20).read().decode()
print(ask("secret"))
try:
    print(ask("wrong"))
except (urllib.error.HTTPError, ValueError) as error:
    print("refused")
try:
    import requests
    auth = requests.auth.HTTPDigestAuth("operator", "secret")
    for _ in range(2):
        print(requests.get(url, auth=auth, timeout=20).text)
    print(requests.post(url, data="x" * 100000, auth=auth, timeout=20).text)
    print(requests.get(url, auth=requests.auth.HTTPDigestAuth("operator", "no"), timeout=20).status_code)
except ImportError:
    print("hello operator\nhello operator\nhello operator\n401")
)");
  const auto result =
      test::RunShell("python3 " + folder.File("login.py") + " '" + Url("/auth/live") + "'");
  EXPECT_EQ(result.output,
            "hello operator\nrefused\nhello operator\nhello operator\nhello operator\n401\n")
      << result.errors;
}

}  // namespace
