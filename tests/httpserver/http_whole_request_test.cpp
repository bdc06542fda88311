// Requests that are read to the end of their headers, and what goes with them.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "cms/exports/http_server_exports.h"
#include "cms/httpserver/internal/whole_request.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/faulty_file_io.h"

namespace {

using test::Connected;
using test::Descriptor;
using test::Request;
using test::SendText;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST(WholeRequest, ReadsWhatBelongsWhere) {
  struct Case {
    const char* head;
    const char* command;
    const char* query;
  };
  for (const Case& one : {
           Case{"GET /cmd?x=1 HTTP/1.1\r\n\r\n", "/cmd", "x=1"},
           Case{"GET /cmd HTTP/1.0\r\nReferer: http://h/?r q\r\nSec-Fetch-User: ?1\r\n\r\n", "/cmd",
                ""},
           Case{"PUT http://host:80/a?b?c HTTP/1.1\r\nHost: host:80\r\n\r\n", "/a", "b?c"},
           Case{"GET /?u=http://h/ HTTP/1.1\r\n\r\n", "/", "u=http://h/"},
       }) {
    cms::ParsedRequest parsed;
    EXPECT_TRUE(cms::ParseWholeRequest(one.head, parsed)) << one.head;
    EXPECT_EQ(parsed.command, one.command);
    EXPECT_EQ(parsed.query, one.query);
  }
  for (const char* bad :
       {"", "\r\n\r\n", "GET /cmd\r\n\r\n", "GET  HTTP/1.1\r\n\r\n", "GET /a b HTTP/1.1\r\n\r\n",
        "G@T / HTTP/1.1\r\n\r\n", "GET / HTTP/2.0\r\n\r\n", "GET / HTTP/1.1\r\nno header\r\n\r\n",
        "GET / HTTP/1.1\r\n folded: x\r\n\r\n", "GET / HTTP/1.1\r\nHost : h\r\n\r\n",
        "GET / HTTP/1.1\r\n: h\r\n\r\n", "GET /a\nb HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\nb: c\r\n\r\n", "\x16\x03\x01 HTTP/1.1\r\n\r\n"}) {
    cms::ParsedRequest parsed;
    EXPECT_FALSE(cms::ParseWholeRequest(bad, parsed)) << bad;
  }
  cms::ParsedRequest parsed;
  ASSERT_TRUE(
      cms::ParseWholeRequest("GET / HTTP/1.1\r\nX-username: \"admin\"\r\n"
                             "authorization:Digest nonce=\"n\", username=\"me\"\r\n"
                             "User-Agent: Trident\r\n\r\n",
                             parsed));
  EXPECT_EQ(parsed.authorization, "nonce=\"n\", username=\"me\"");
  EXPECT_EQ(parsed.userName, "me");
  EXPECT_TRUE(parsed.clientIsIe);
}

TEST(WholeRequest, HeadersAndTheirEnd) {
  const std::string text =
      "Host: of the first line\r\nA:1\r\nhOST: \t one \r\nHost: two\r\n\r\nB: 2";
  EXPECT_EQ(cms::FindHeader(text, "host"), "one");
  EXPECT_EQ(cms::FindHeader(text, "a"), "1");
  EXPECT_EQ(cms::FindHeader(text, "B"), std::nullopt);
  EXPECT_EQ(cms::FindHeader(text, ""), std::nullopt);
  const std::size_t whole = text.size() - 4;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    const std::string part = text.substr(0, size);
    for (std::size_t seen = 0; seen <= std::min(size, whole - 1); ++seen) {
      ASSERT_EQ(cms::HeadLength(part, seen), size >= whole ? whole : 0) << size << ' ' << seen;
    }
  }
}

class HttpWholeRequests : public test::HttpServerTest {
 protected:
  void SetUp() override {
    const cms::tHttpServerConfigEx config{
        0,
        [](void* context, const std::string& user, std::string& password) {
          password = *static_cast<std::string*>(context);
          return user == "operator" ? 1 : 0;
        },
        &password_, INADDR_LOOPBACK, 8};
    server_ = CreateHttpServerEx(&config);
    ASSERT_NE(server_, nullptr);
    ASSERT_EQ(EnableWholeRequests(server_, 1), 1);
    ASSERT_EQ(EnableStrictDigest(server_, 1), 1);
    On("/status", [](HttpRequest* request, const char*, std::uint32_t) {
      std::string query;
      GetQueryData(request, &query);
      SetStatusCode(request, static_cast<std::uint32_t>(std::stoul(query)));
      return RequestWrite(request, "body");
    });
    const auto hello = [](void* context, HttpRequest* request, const char*) {
      std::string user;
      std::string host;
      GetUsername(request, user);
      RequestGetHeader(request, "host", host);
      RequestSetContentType(request, "text/plain");
      RequestSetContentType(request, "text/plain\r\nSet-Cookie: x");
      EXPECT_EQ(RequestAddHeader(request, "X-Frame-Options", "DENY"), 1);
      EXPECT_EQ(RequestAddHeader(request, "X-Other", "a\r\nSet-Cookie: x"), 0);
      EXPECT_EQ(RequestAddHeader(request, "Set-Cookie: x\r\nX", "a"), 0);
      ++*static_cast<std::atomic<int>*>(context);
      return RequestWrite(request, ("hello " + user + " of " + host).c_str());
    };
    ASSERT_EQ(RegisterEgiEx(server_, "/hello", hello, &asked_), 1);
    ASSERT_EQ(RegisterEgiEx(server_, "/auth/hello", hello, &asked_), 1);
    Start();
  }

  std::string password_ = "se cret";
  std::atomic<int> asked_ = 0;
};

TEST_F(HttpWholeRequests, ArriveInAnyPieces) {
  const std::string request = Request("/hello");
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, request.size() - 1}) {
    const Descriptor client = Connected(Port());
    for (std::size_t at = 0; at < request.size(); at += piece) {
      ASSERT_TRUE(SendText(client, request.substr(at, piece)));
      std::this_thread::sleep_for(std::chrono::milliseconds(piece == 1 ? 2 : 40));
    }
    EXPECT_THAT(test::ReadToEnd(client), EndsWith("hello  of test"));
  }
  EXPECT_EQ(asked_, 3);
  // Bodies are not looked at, and do not hold up the answer.
  EXPECT_THAT(
      Ask(Request("/hello", "Content-Length: 900000\r\n", "POST") + std::string(900000, 'b')),
      EndsWith("hello  of test"));
}

TEST_F(HttpWholeRequests, AnswersTellWhatTheyAreAndThatTheConnectionEnds) {
  EXPECT_THAT(Ask(Request("/hello")),
              testing::AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                             HasSubstr("\r\nContent-type: text/plain\r\nContent-length: 14\r\n"
                                       "X-Frame-Options: DENY\r\n"),
                             HasSubstr("\r\nConnection: close\r\n\r\n")));
  for (const auto& [number, line] :
       {std::pair("5", "404 Not Found"), std::pair("404", "404 Not Found"),
        std::pair("200", "200 OK"), std::pair("302", "302 Found"), std::pair("500", "500 Internal"),
        std::pair("503", "503 Service"), std::pair("418", "418 \r\n"), std::pair("99", "200 OK"),
        std::pair("9", "200 OK"), std::pair("60000", "200 OK"), std::pair("902", "902 In black")}) {
    EXPECT_THAT(Ask(Request("/status?" + std::string(number))),
                StartsWith("HTTP/1.1 " + std::string(line)));
  }
  EXPECT_THAT(Ask(Request("/status?401")),
              testing::AllOf(StartsWith("HTTP/1.1 401 Unauthorized\r\n"),
                             HasSubstr("WWW-Authenticate: Digest realm=\"QNV\", nonce=\"")));
  EXPECT_THAT(Ask("GET /hello\r\n\r\n"), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
  EXPECT_THAT(Ask(Request("/hello", "X: " + std::string(70000, 'x') + "\r\n")),
              StartsWith("HTTP/1.1 431 Request Header Fields Too Large\r\n"));
}

// The library listens where it was told, and nowhere else.
TEST_F(HttpWholeRequests, OneAddress) {
  const Descriptor other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = test::Loopback(static_cast<std::uint16_t>(Port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  EXPECT_NE(connect(other, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
}

// Cookies as they pile up in browsers stand in front of the login.
TEST_F(HttpWholeRequests, LoginsOfEveryClient) {
  const test::TemporaryFolder folder;
  test::WriteWholeFile(folder.File("login.py"), R"(
import http.client, sys, urllib.request
port = int(sys.argv[1])
connection = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
for _ in range(3):
    connection.request("GET", "/hello", headers={"Cookie": "c=" + "x" * 5000})
    print(connection.getresponse().read().decode())
url = "http://127.0.0.1:%d/auth/hello?x=1" % port
passwords = urllib.request.HTTPPasswordMgrWithDefaultRealm()
passwords.add_password(None, url, "operator", "se cret")
opener = urllib.request.build_opener(urllib.request.HTTPDigestAuthHandler(passwords))
opener.addheaders = [("Cookie", "c=" + "x" * 5000)]
for _ in range(2):
    print(opener.open(url, timeout=20).read().decode())
)");
  const std::string host = "127.0.0.1:" + std::to_string(Port());
  const auto python =
      test::RunShell("python3 " + folder.File("login.py") + " " + std::to_string(Port()));
  const std::string plain = "hello  of " + host + "\n";
  const std::string proven = "hello operator of " + host + "\n";
  EXPECT_EQ(python.output, plain + plain + plain + proven + proven) << python.errors;
  const auto curl = [&](const std::string& options) {
    return test::RunShell("curl -sS --digest -w '|%{http_code}' -b c=" + std::string(5000, 'x') +
                          " " + options + " '" + Url("/auth/hello?a=b%20c") + "'")
        .output;
  };
  EXPECT_EQ(curl("-u 'operator:se cret'"), "hello operator of " + host + "|200");
  EXPECT_EQ(curl("-u 'operator:se cret' -X PUT -d " + std::string(3000, 'd')),
            "hello operator of " + host + "|200");
  EXPECT_THAT(curl("-u operator:secret"), EndsWith("|401"));
}

// Clients that begin a request and do not go on cannot keep the others out.
TEST_F(HttpWholeRequests, SlowClientsAreGivenUpWhereManyWait) {
  std::vector<Descriptor> slow(24);
  for (Descriptor& each : slow) {
    each = Connected(Port());
    ASSERT_TRUE(SendText(each, "GET /hello HTTP/1.1\r\nX"));
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(Ask(Request("/hello")), EndsWith("hello  of test"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(18));
  EXPECT_THAT(test::ReadToEnd(slow.back()), StartsWith("HTTP/1.1 408 Request Timeout\r\n"));
}

}  // namespace
