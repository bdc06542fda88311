// One HTTP exchange with servers of every kind.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "cms/ipcam/config_utility.h"
#include "cms/runtime/digest.h"
#include "tests/ipcam/scripted_camera_site.h"

namespace {
constexpr auto kSlowLookUp = std::chrono::seconds(10);
}

// A name server that takes its time over one name; libcurl's look-ups come here.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  static const auto next =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::string_view(node) == "slow.example") {
    std::this_thread::sleep_for(kSlowLookUp);
    return EAI_AGAIN;
  }
  return next(node, service, hints, result);
}

namespace {

using test::FastUtility;
using test::HttpRequestText;
using test::ScriptedHttpServer;
using testing::HasSubstr;

struct Exchange {
  explicit Exchange(std::uint16_t port) : utility(port) {
    utility.InitialHTTPCommandParam(param);
    param.objectPath = L"/x?a=1,2&b=%20";
    param.answer = answer.data();
    param.answerCapacity = 100;
  }
  int Run() { return utility.SendHTTPCommand(param); }
  std::string Answer() const { return {answer.data(), param.answerLength}; }

  FastUtility utility;
  _SEND_HTTP_COMMAND_PARAM param;
  std::array<char, 100> answer{};
};

TEST(HttpCommand, TheStatusDecidesAndTheRequestIsTheCallers) {
  struct Case {
    const char* answer;
    int result;
    const char* body;
  };
  for (const Case& c : {
           Case{"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", cms::kHttpCommandOk, "hello"},
           Case{"HTTP/1.0 200 OK\r\n\r\nuntil the end", cms::kHttpCommandOk, "until the end"},
           Case{"HTTP/1.1 200 Ok\r\n\r\nx", cms::kHttpCommandOk, "x"},
           Case{"HTTP/1.1 2000 OK\r\n\r\nx", cms::kHttpCommandFailed, ""},
           Case{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
                cms::kHttpCommandOk, "abc"},
           Case{"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nx", cms::kHttpCommandOk, "x"},
           Case{"HTTP/1.1 401 Unauthorized\r\nContent-Length: 3\r\n\r\nno!",
                cms::kHttpCommandUnauthorized, ""},
           Case{"HTTP/1.1 302 Found\r\nLocation: /200%20OK\r\n\r\n", cms::kHttpCommandFailed, ""},
           Case{"HTTP/1.1 500 Oh\r\nX: 200 OK\r\n\r\nno", cms::kHttpCommandFailed, ""},
           Case{"HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nbroken off", cms::kHttpCommandFailed,
                ""},
           Case{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz", cms::kHttpCommandFailed,
                ""},
           Case{"\x16\x03\x01 what?", cms::kHttpCommandFailed, ""},
           Case{"", cms::kHttpCommandFailed, ""},
       }) {
    SCOPED_TRACE(c.answer);
    ScriptedHttpServer server([&c](const HttpRequestText&) { return c.answer; });
    Exchange exchange(server.Port());
    EXPECT_EQ(exchange.Run(), c.result) << exchange.utility.LastError();
    EXPECT_EQ(exchange.Answer(), c.body);
    EXPECT_EQ(exchange.utility.LastError().empty(), c.result == cms::kHttpCommandOk);
    EXPECT_EQ(exchange.utility.LastResult(), c.result);
    ASSERT_GE(server.Requests().size(), 1U);
    EXPECT_THAT(server.Requests()[0].head, testing::StartsWith("GET /x?a=1,2&b=%20 HTTP/1.1\r\n"));
    EXPECT_EQ(server.Requests()[0].Header("Authorization"), "Basic YWRtaW46c2VjcmV0");
  }
}

TEST(HttpCommand, HeadersAreAddedOnceAndAProxyOfTheEnvironmentIsNotUsed) {
  setenv("http_proxy", "http://127.0.0.1:9", 1);
  ScriptedHttpServer server([](const HttpRequestText&) { return ScriptedHttpServer::Ok("ok"); });
  Exchange exchange(server.Port());
  exchange.param.headers = L"X-One: 1\r\nx-one: 2\r\nAuthorization: Own\r\n";
  EXPECT_EQ(exchange.Run(), cms::kHttpCommandOk) << exchange.utility.LastError();
  unsetenv("http_proxy");
  const std::string head = server.Requests()[0].head;
  EXPECT_THAT(head, HasSubstr("X-One: 1\r\n"));
  EXPECT_THAT(head, testing::Not(HasSubstr("x-one")));
  EXPECT_THAT(head, testing::Not(HasSubstr("Basic")));
}

TEST(HttpCommand, AServerThatWantsDigestCredentialsGetsThem) {
  for (const std::string challenge :
       {"www-authenticate: digest realm=\"cam\", nonce=\"n1\"",
        "WWW-Authenticate:Digest nonce=\"n1\", realm=\"cam\"",
        "WWW-Authenticate: Basic realm=\"cam\", Digest realm=\"cam\", nonce=\"n1\"",
        "WWW-Authenticate: Basic realm=\"cam\"\r\n"
        "WWW-Authenticate: Digest realm=\"cam\", nonce=\"n1\""}) {
    SCOPED_TRACE(challenge);
    ScriptedHttpServer server([&](const HttpRequestText& request) {
      const std::string credentials = request.Header("Authorization");
      const std::string expected = cms::Md5Hex(cms::Md5Hex("admin:cam:secret") +
                                               ":n1:" + cms::Md5Hex("POST:/x?a=1,2&b=%20"));
      return credentials.find("response=\"" + expected + "\"") != std::string::npos
                 ? ScriptedHttpServer::Ok(request.body)
                 : "HTTP/1.1 401 Unauthorized\r\n" + challenge + "\r\n\r\n";
    });
    Exchange exchange(server.Port());
    exchange.param.verb = cms::kHttpVerbPost;
    exchange.param.body = L"b\u00e4";
    exchange.param.headers = L"Content-Length: 3\r\n";
    EXPECT_EQ(exchange.Run(), cms::kHttpCommandOk) << exchange.utility.LastError();
    EXPECT_EQ(exchange.Answer(), "b\u00e4");
    exchange.param.password = L"wrong";
    EXPECT_EQ(exchange.Run(), cms::kHttpCommandUnauthorized);
  }
}

TEST(HttpCommand, ANonceThatIsStaleEachTimeEndsTheExchange) {
  ScriptedHttpServer server([](const HttpRequestText&) {
    return "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n"
           "WWW-Authenticate: Digest realm=\"cam\", nonce=\"n1\", stale=true\r\n\r\n";
  });
  Exchange exchange(server.Port());
  EXPECT_EQ(exchange.Run(), cms::kHttpCommandUnauthorized) << exchange.utility.LastError();
  EXPECT_LE(server.Requests().size(), 5U);
}

TEST(HttpCommand, EndlessAnswersAreCutOrGivenUp) {
  ScriptedHttpServer body([](const HttpRequestText&) { return "HTTP/1.1 200 OK\r\n\r\n"; });
  body.KeepOpen(std::string(1000, 'x'));
  Exchange exchange(body.Port());
  EXPECT_EQ(exchange.Run(), cms::kHttpCommandOk);
  EXPECT_EQ(exchange.Answer(), std::string(99, 'x'));
  EXPECT_EQ(exchange.answer[99], '\0');
  EXPECT_THAT(exchange.utility.LastError(), HasSubstr("longer than 99 bytes"));

  ScriptedHttpServer header([](const HttpRequestText&) { return "HTTP/1.1 200 OK\r\n"; });
  header.KeepOpen("X-More: and more\r\n");
  Exchange second(header.Port());
  EXPECT_EQ(second.Run(), cms::kHttpCommandFailed);
  EXPECT_THAT(second.utility.LastError(), HasSubstr("header does not end"));
}

TEST(HttpCommand, EveryStepHasItsTime) {
  // A listener whose queue is full lets no connection come about.
  const int full = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(full, reinterpret_cast<const sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(full, 0), 0);
  getsockname(full, reinterpret_cast<sockaddr*>(&address), &size);
  std::array<int, 3> waiting{};
  for (int& one : waiting) {
    one = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    static_cast<void>(connect(one, reinterpret_cast<const sockaddr*>(&address), size));
  }
  Exchange connecting(ntohs(address.sin_port));
  connecting.param.connectTimeout = 100;
  EXPECT_EQ(connecting.Run(), cms::kHttpCommandFailed);
  EXPECT_THAT(connecting.utility.LastError(), HasSubstr("no connection within 100 ms"));
  for (const int one : waiting) {
    close(one);
  }
  close(full);
  EXPECT_EQ(connecting.Run(), cms::kHttpCommandFailed);  // refused
  EXPECT_FALSE(connecting.utility.LastError().empty());

  ScriptedHttpServer silent([](const HttpRequestText&) { return ""; });
  silent.KeepOpen("");
  Exchange awaiting(silent.Port());
  awaiting.param.controlReceiveTimeout = 100;
  EXPECT_EQ(awaiting.Run(), cms::kHttpCommandFailed);
  EXPECT_THAT(awaiting.utility.LastError(), HasSubstr("no answer within 100 ms"));

  // Interim answers are none, however many come.
  ScriptedHttpServer interim(
      [](const HttpRequestText&) { return "HTTP/1.1 100 Continue\r\n\r\n"; });
  interim.KeepOpen("HTTP/1.1 100 Continue\r\n\r\n", std::chrono::milliseconds(50));
  Exchange dripped(interim.Port());
  dripped.param.controlReceiveTimeout = 200;
  dripped.param.dataReceiveTimeout = 200;
  EXPECT_EQ(dripped.Run(), cms::kHttpCommandFailed);
  EXPECT_THAT(dripped.utility.LastError(), HasSubstr("no answer within 200 ms"));

  ScriptedHttpServer slow([](const HttpRequestText&) { return "HTTP/1.1 200 OK\r\n\r\nsome"; });
  slow.KeepOpen("");
  Exchange receiving(slow.Port());
  receiving.param.dataReceiveTimeout = 100;
  EXPECT_EQ(receiving.Run(), cms::kHttpCommandFailed);
  EXPECT_EQ(receiving.Answer(), "");
  EXPECT_THAT(receiving.utility.LastError(), HasSubstr("did not end within 100 ms"));
}

TEST(HttpCommand, ANameThatIsNotFoundCostsNoMoreThanItsTime) {
  Exchange exchange(80);
  exchange.param.serverAddress = L"slow.example";
  exchange.param.connectTimeout = 200;
  exchange.param.connectRetries = 1;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(exchange.Run(), cms::kHttpCommandFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, kSlowLookUp);
  EXPECT_THAT(exchange.utility.LastError(), HasSubstr("no connection within 200 ms"));
}

TEST(HttpCommand, AddressesAndPathsCannotChangeTheRequest) {
  ScriptedHttpServer server([](const HttpRequestText&) { return ScriptedHttpServer::Ok("ok"); });
  for (const wchar_t* path : {L"", L"x", L"/a b", L"/a\r\nX: 1"}) {
    Exchange exchange(server.Port());
    exchange.param.objectPath = path;
    EXPECT_EQ(exchange.Run(), cms::kHttpCommandFailed);
  }
  for (const wchar_t* address : {L"", L"a b", L"u@127.0.0.1", L"127.0.0.1/x", L"127.0.0.1:80"}) {
    Exchange exchange(server.Port());
    exchange.param.serverAddress = address;
    EXPECT_EQ(exchange.Run(), cms::kHttpCommandFailed);
  }
  EXPECT_TRUE(server.Requests().empty());
}

TEST(HttpCommand, InterruptEndsExchangesAndWaitsAtOnceAndUntilResumed) {
  ScriptedHttpServer silent([](const HttpRequestText&) { return ""; });
  silent.KeepOpen("");
  CIPCAM_Config_Utility utility;
  utility.SetSiteInfo(L"127.0.0.1", silent.Port(), L"admin", L"secret");
  const auto start = std::chrono::steady_clock::now();
  std::thread interrupter([&] {
    while (silent.Requests().empty()) {
      std::this_thread::yield();
    }
    utility.Interrupt();
  });
  EXPECT_FALSE(utility.GetAllONVIFConfig());
  interrupter.join();
  EXPECT_THAT(utility.LastError(), HasSubstr("interrupted"));
  EXPECT_FALSE(utility.GetDeviceInformation());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));  // not the 20 s

  ScriptedHttpServer camera(test::OnvifAnswers());
  utility.SetSiteInfo(L"127.0.0.1", camera.Port(), L"admin", L"secret");
  utility.ResumeAfterInterrupt();
  const auto resumed = std::chrono::steady_clock::now();
  EXPECT_TRUE(utility.GetDeviceInformation()) << utility.LastError();
  EXPECT_GE(std::chrono::steady_clock::now() - resumed, std::chrono::seconds(1));
}

}  // namespace
