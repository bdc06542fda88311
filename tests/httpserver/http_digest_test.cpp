// Digest authentication: the rules, and the clients that people use.
#include <fstream>

#include "cms/exports/http_server_exports.h"
#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/runtime/digest.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/faulty_file_io.h"

namespace {

using cms::DigestResult;
using cms::Md5Hex;
using test::Request;
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
  return cms::VerifyDigest(parameters, method, test::OneUser);
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
              testing::EndsWith("</H2></BODY>\r\n</HTML>\r\n|401"));
  EXPECT_THAT(Curl("--digest -u nobody:secret " + url),
              HasSubstr("<TITLE>Authentication Error: Access Denied, authentication error.<"));
  EXPECT_THAT(Curl(url),
              HasSubstr("<TITLE>Authentication Error: Access Denied, Authorization required.<"));
  EXPECT_THAT(Curl("--basic -u operator:secret " + url), testing::EndsWith("|401"));
  EXPECT_THAT(Curl("'" + Url("/my/authors") + "'"), testing::EndsWith("|401"))
      << "\"/auth\" anywhere in a name protects it";
}

// What one method and uri proved opens no other.
TEST_F(HttpLogin, ProofsAreForTheirMethodOnly) {
  Client client;
  const auto ask = [&](const char* method) {
    return Ask(
        Request(client.uri, "Authorization: Digest " + client.Parameters() + "\r\n", method));
  };
  EXPECT_THAT(ask("GET"), StartsWith("HTTP/1.1 200 OK"));
  EXPECT_THAT(ask("GET"), StartsWith("HTTP/1.1 200 OK")) << "nonces may be used again";
  EXPECT_THAT(ask("POST"), testing::AllOf(StartsWith("HTTP/1.1 401 Unauthorized"),
                                          HasSubstr("\r\nWWW-Authenticate: Digest realm=\"QNV\"")));
  client.uri = "/auth/other";
  EXPECT_THAT(ask("GET"), StartsWith("HTTP/1.1 404")) << "no such handler";
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
