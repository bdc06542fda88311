// What the server answers, byte for byte: parsing, dispatch, header blocks, access lists.
#include <atomic>

#include "cms/exports/http_server_exports.h"
#include "cms/httpserver/internal/http_headers.h"
#include "cms/httpserver/internal/request_parser.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/digest.h"
#include "tests/httpserver/http_server_fixture.h"

namespace {

using test::Request;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kNotFound[] =
    "<HTML><HEAD><TITLE>Document Error: Not Found</TITLE></HEAD>\r\n"
    "<BODY><H2>Access Error: 404 -- Not Found</H2>\r\n</BODY></HTML>\r\n";
constexpr char kBadRequest[] = "<HTML><BODY>\r\n<p>Bad Request!!</p>\r\n</BODY></HTML>\r\n";

int Echo(HttpRequest* request, const char* marker, std::uint32_t) {
  std::string text;
  for (const auto get : {GetMethod, GetCGICommand, GetUsername}) {
    const int told = get(request, text);
    RequestWriteFormat(request, "%d[%s]", told, text.c_str());
  }
  const int length = GetQueryData(request, nullptr);
  GetQueryData(request, &text);
  RequestWriteFormat(request, "%d[%s]%s", length, text.c_str(), marker != nullptr ? marker : "-");
  return 0;
}

// The moment of the date below.
class FixedClock final : public cms::Clock {
 public:
  std::uint64_t TickMilliseconds() const override { return 0; }
  std::int64_t WallSeconds() const override { return 1415090977; }
};
#define FIXED_DATE "Tue, 04 Nov 2014 08:49:37 GMT\r\n"

class HttpAnswerTest : public test::HttpServerTest {
 protected:
  void SetUp() override {
    cms::ReplaceClock(&clock_);
    HttpServerTest::SetUp();
  }
  void TearDown() override {
    HttpServerTest::TearDown();
    cms::ReplaceClock(nullptr);
  }

 private:
  const FixedClock clock_;
};

TEST_F(HttpAnswerTest, HeaderBlocksToTheByte) {
  On("/page", [](HttpRequest* request, const char*, std::uint32_t) {
    RequestWrite(request, "0123456789");
    SetKeepConnection(request, 0);
    return 0;
  });
  On("/forbidden", [](HttpRequest* request, const char*, std::uint32_t) {
    SetStatusCode(request, 4);
    return 0;
  });
  On("/nine", [](HttpRequest* request, const char*, std::uint32_t) {
    SetStatusCode(request, 9);
    return 0;
  });
  On("/file", [](HttpRequest* request, const char*, std::uint32_t) {
    std::string query;
    GetQueryData(request, &query);
    EXPECT_EQ(SendHeaderForFile(request, 5000000000, query), 1);
    EXPECT_EQ(SendHeaderForFile(request, 1, ""), 0) << "only once";
    EXPECT_EQ(RequestFlushWrite(request, "abc", 3), 1);
    EXPECT_EQ(RequestFlushWrite(request, "", 0), 1);
    ForceDissconnect(request);
    RequestWrite(request, "never sent");
    return 0;
  });
  On("/broken", [](HttpRequest* request, const char*, std::uint32_t) {
    EXPECT_EQ(SendHeaderForFile(request, 5000000000, "now\r\nSet-Cookie: x"), 1);
    return ForceDissconnect(request);
  });
  On("/stream", [](HttpRequest* request, const char*, std::uint32_t) {
    RequestFlushWrite(request, "one", 3);
    RequestFlushWrite(request, "two", 3);
    return 0;
  });
  Start();
  const std::string common =
      "Date: " FIXED_DATE "Server: CMS-HTTPServer\r\nCache-Control: no-cache\r\n";
  const std::string page = "HTTP/1.1 200 OK\r\n" + common +
                           "Content-type: text/html\r\nContent-length: 10\r\n"
                           "Connection: close\r\n\r\n";
  EXPECT_EQ(Ask(Request("/page")), page + "0123456789");
  EXPECT_EQ(Ask(Request("/page", "", "HEAD")), page);
  EXPECT_EQ(Ask(Request("/forbidden")),
            "HTTP/1.1 403 Forbidden\r\n" + common + "Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(Ask(Request("/nine")), "HTTP/1.1 \r\n" + common + "Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(Ask(Request("/stream")),
            "HTTP/1.1 200 OK\r\n" + common + "Connection: keep-alive\r\n\r\nonetwo");
  const std::string fileStart = "HTTP/1.1 200 OK\r\nDate: " FIXED_DATE
                                "Server: CMS-HTTPServer\r\n"
                                "Content-type: text/html\r\n";
  const std::string fileEnd = "Content-length: 5000000000\r\nConnection: keep-alive\r\n\r\n";
  EXPECT_EQ(Ask(Request("/file")), fileStart + fileEnd + "abc");
  EXPECT_EQ(Ask(Request("/file?yesterday")),
            fileStart + "Last-modified: yesterday\r\n" + fileEnd + "abc");
  EXPECT_EQ(Ask(Request("/broken")), fileStart + fileEnd) << "no header of somebody else's";
  EXPECT_EQ(Ask(Request("/none")),
            "HTTP/1.1 404 Not Found\r\n" + common +
                "Content-type: text/html\r\nContent-length: 124\r\nConnection: close\r\n\r\n" +
                kNotFound);
  EXPECT_EQ(Ask("garbage\r\n\r\n"),
            "HTTP/1.1 400 Bad Request\r\n" + common +
                "Content-type: text/html\r\nContent-length: 52\r\nConnection: close\r\n\r\n" +
                kBadRequest);
}

TEST_F(HttpAnswerTest, DatesAndNonces) {
  EXPECT_EQ(cms::HttpDate(1415090977), FIXED_DATE);
  EXPECT_EQ(cms::HttpDate(951782400), "Tue, 29 Feb 2000 00:00:00 GMT\r\n");
  EXPECT_EQ(cms::HttpDate(253402300799), "Fri, 31 Dec 9999 23:59:59 GMT\r\n");
  EXPECT_EQ(cms::DateChallenge(1415090977),
            "Digest realm=\"QNV\", domain=\"0.0.0.0\", qop=\"auth\", nonce=\"" +
                cms::Md5Hex(FIXED_DATE) + "\", opaque=\"\", algorithm=\"MD5\", stale=\"FALSE\"");
  On("/401", [](HttpRequest* request, const char*, std::uint32_t) {
    return SetStatusCode(request, cms::kHttpAuthorizationRequired);
  });
  Start();
  EXPECT_THAT(
      Ask(Request("/401")),
      HasSubstr("\r\nWWW-Authenticate: " + cms::DateChallenge(1415090977) + "\r\nConnection: "));
}

// What a browser sends to a server of its own host.
TEST_F(HttpAnswerTest, ABrowserFindsAPlainTargetOnceTheFirstLineCountsAlone) {
  On("/page", [](HttpRequest* request, const char*, std::uint32_t) {
    std::string query;
    GetQueryData(request, &query);
    return RequestWrite(request, ("found " + query).c_str());
  });
  Start();
  const std::string headers = "Sec-Fetch-User: ?1\r\nReferer: http://h/?a b\r\n";
  EXPECT_THAT(Ask(Request("/page", headers)), StartsWith("HTTP/1.1 404"));
  EXPECT_EQ(EnableFirstLineTarget(server_, 1), 1);
  EXPECT_THAT(Ask(Request("/page", headers)), EndsWith("found "));
  EXPECT_THAT(Ask(Request("/page?x=?", headers)), EndsWith("found x=?"));
  EXPECT_THAT(Ask("GET /page\r\nHTTP/1.1 "), StartsWith("HTTP/1.1 404"));
  EXPECT_EQ(EnableFirstLineTarget(nullptr, 1), 0);
}

TEST_F(HttpAnswerTest, ParsesRequests) {
  struct Case {
    const char* text;
    bool good;
    const char* method;
    const char* command;
    const char* query;
  };
  for (const Case& one : {
           Case{"GET /cmd?x=1 HTTP/1.1\r\n\r\n", true, "GET", "/cmd", "x=1"},
           Case{"GET /cmd HTTP/1.1\r\n\r\n", true, "GET", "/cmd", ""},
           Case{"GET /cmd HTTP/1.0\r\n\r\n", true, "GET", "/cmd", ""},
           Case{"GET /cmd? HTTP/1.1\r\n\r\n", true, "GET", "/cmd", ""},
           Case{"GET /a?b?c=d HTTP/1.1\r\n\r\n", true, "GET", "/a", "b?c=d"},
           Case{"GET ?x HTTP/1.1\r\n\r\n", true, "GET", "", "x"},
           Case{"GET/cmd HTTP/1.1\r\nHost: h\r\n\r\n", true, "GET", "HTTP/1.1\r\nHost:", ""},
           Case{" /cmd HTTP/1.1\r\n\r\n", true, "", "/cmd", ""},
           // The whole text is searched for the "?", but nothing behind an old browser's name.
           Case{"GET /cmd HTTP/1.1\r\nReferer: http://h/?r q\r\n\r\n", true, "GET",
                "/cmd HTTP/1.1\r\nReferer: http://h/", "r"},
           Case{"GET /cmd HTTP/1.1\r\nUser-Agent: MSIE\r\nReferer: /?r q\r\n\r\n", true, "GET",
                "/cmd", ""},
           Case{"GETHTTP/1.1", true, "GETHTTP", "", ""},
           Case{"MSIEGET /cmd HTTP/1.1\r\n\r\n", false, "", "", ""},
           Case{"GET /cmd HTTP/1.2\r\n\r\n", false, "", "", ""},
           Case{"GET /cmd\r\n\r\n", false, "", "", ""},
           Case{"", false, "", "", ""},
       }) {
    cms::ParsedRequest parsed;
    EXPECT_EQ(cms::ParseRequest(one.text, parsed), one.good) << one.text;
    EXPECT_EQ(parsed.method, one.method) << one.text;
    EXPECT_EQ(parsed.command, one.command) << one.text;
    EXPECT_EQ(parsed.query, one.query) << one.text;
  }
  cms::ParsedRequest parsed;
  cms::ParseRequest("GET / HTTP/1.1\r\nAuthorization:  Digest  username=\"me\", a=b\r\nX: y\r\n",
                    parsed);
  EXPECT_EQ(parsed.authorization, "username=\"me\", a=b");
  EXPECT_EQ(parsed.userName, "me");
  cms::ParseRequest("GET / HTTP/1.1\r\nAuthorization: Digest\r\n", parsed);
  EXPECT_EQ(parsed.authorization, "");
  cms::ParseRequest("GET / HTTP/1.1\r\nAuthorization: Digest unended", parsed);
  EXPECT_EQ(parsed.authorization, "");
}

TEST_F(HttpAnswerTest, HandlersSeeTheRequestAndTheFirstOfEqualNamesCounts) {
  On("/echo", Echo);
  On("/echo", [](HttpRequest* request, const char*, std::uint32_t) {
    return RequestWrite(request, "the second");
  });
  On("plain", Echo);
  const std::string longest(EgiHandler::kNameSize - 1, 'n');
  On((longest + "cut away").c_str(), Echo);
  Start();
  EXPECT_THAT(Ask(Request("/echo?a=%s%n%n")), EndsWith("\r\n\r\n1[GET]1[/echo]0[]8[a=%s%n%n]-"));
  EXPECT_THAT(Ask(Request("/echo", "X: username=\"%s%n\"\r\n")), EndsWith("1[%s%n]0[]-"));
  EXPECT_THAT(Ask(Request("/echo", "User-Agent: Trident\r\n")), EndsWith("[]IE"));
  EXPECT_THAT(Ask(Request("plain", "User-Agent: MSIE\r\n")), EndsWith("[plain]0[]0[]-"));
  EXPECT_THAT(Ask(Request(longest)), StartsWith("HTTP/1.1 200 OK"));
  for (const std::string& other :
       {std::string("/Echo"), std::string("/echo/"), std::string("/ech"), longest + "cut away"}) {
    EXPECT_THAT(Ask(Request(other)), EndsWith(kNotFound)) << other;
  }
}

TEST_F(HttpAnswerTest, HandlersSeeTheConnection) {
  static std::atomic<int> port;
  On("/", [](HttpRequest* request, const char*, std::uint32_t) {
    std::string address;
    EXPECT_EQ(GetClientAddress(request), htonl(INADDR_LOOPBACK));
    EXPECT_EQ(GetClientAddressString(request, address), 1);
    EXPECT_EQ(address, "127.0.0.1");
    EXPECT_EQ(GetBindPort(request), port);
    EXPECT_EQ(GetThreadHandle(request), pthread_self());
    EXPECT_NE(SetRequestThreadPriority(request, -1), 0);
    EXPECT_EQ(SetSendSocketBuufer(request, 100000), 0);
    return RequestWrite(request, "seen");
  });
  Start();
  port = Port();
  EXPECT_THAT(Ask(Request("/")), EndsWith("seen"));
}

TEST_F(HttpAnswerTest, FormattedTextEndsAtItsBound) {
  On("/", [](HttpRequest* request, const char*, std::uint32_t) {
    EXPECT_EQ(RequestWriteFormat(request, "%*d", 40959, 1), 1);
    EXPECT_EQ(RequestWriteFormat(request, "%*d", 40960, 2), 0);
    EXPECT_EQ(RequestWriteFormat(request, "%s", std::string(100000, 'x').c_str()), 0);
    return RequestWrite(request, std::string(100000, 'y').c_str());
  });
  Start();
  const std::string answer = Ask(Request("/"));
  EXPECT_THAT(answer, HasSubstr("Content-length: " + std::to_string(3 * 40959 + 100000) + "\r\n"));
  EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, 3u * 40959 + 100000);
}

// One read of 2,048 bytes is the request, whatever comes behind; the answer arrives all the same.
TEST_F(HttpAnswerTest, OneReadIsTheRequest) {
  On("/echo", Echo);
  Start();
  const std::string filler = "X: " + std::string(6000, 'x') + "\r\n";
  EXPECT_THAT(Ask(Request("/echo", filler)), EndsWith("1[/echo]0[]0[]-"));
  EXPECT_THAT(Ask(Request("/echo", filler + "Y: ?\r\n")), EndsWith("1[/echo]0[]0[]-"));
  const test::Descriptor slow = test::Connected(Port());
  test::SendText(slow, "G");
  EXPECT_THAT(test::ReadToEnd(slow), EndsWith(kBadRequest));
  EXPECT_THAT(
      Ask(Request("/echo", "Content-Length: 900000\r\n", "POST") + std::string(900000, 'b')),
      EndsWith("1[POST]1[/echo]0[]0[]-"));
}

// Nor does what a client sends while a long answer is on its way cut that.
TEST_F(HttpAnswerTest, FurtherBytesBehindARequestDoNotCutItsAnswer) {
  static const std::string body(400000, 'b');
  On("/", [](HttpRequest* request, const char*, std::uint32_t) {
    return RequestWrite(request, body.c_str());
  });
  Start();
  for (int i = 0; i < (test::kSanitized ? 20 : 100); ++i) {
    const test::Descriptor client = test::Connected(Port());
    test::SendText(client, Request("/"));
    char first = 0;
    ASSERT_EQ(recv(client, &first, 1, 0), 1);
    test::SendText(client, Request("/"));
    ASSERT_THAT(test::ReadToEnd(client).size(), testing::Gt(body.size())) << i;
  }
}

TEST_F(HttpAnswerTest, AccessLists) {
  On("/", Echo);
  Start();
  constexpr std::uint32_t kMe = INADDR_LOOPBACK;
  const auto answer = [&] { return Ask(Request("/")); };
  EXPECT_EQ(AllowAccess(server_, kMe), 2) << "nothing is checked yet";
  SetWhiteBlackListInfo(server_, 0, 0xFFFFFFFF, 1, cms::kAccessListAdd);
  EXPECT_THAT(answer(), StartsWith("HTTP/1.1 200 OK"));
  ClearAllWhiteBlackListInfo(server_);

  EnableWhiteBlackList(server_, 1);
  EXPECT_EQ(AllowAccess(server_, kMe), 1);
  EXPECT_THAT(answer(),
              testing::AllOf(StartsWith("HTTP/1.1 901 Not in white list\r\n"),
                             EndsWith("Connection: close\r\n\r\n<HTML><BODY>\r\n<p>Not In White "
                                      "List!!</p>\r\n</BODY></HTML>\r\n")));
  SetWhiteBlackListInfo(server_, kMe + 1, kMe + 9, 2, cms::kAccessListAdd);
  EXPECT_EQ(AllowAccess(server_, kMe), 1);
  SetWhiteBlackListInfo(server_, kMe - 1, kMe, 2, cms::kAccessListAdd);
  EXPECT_EQ(AllowAccess(server_, kMe), 2);
  EXPECT_THAT(answer(), StartsWith("HTTP/1.1 200 OK"));
  SetWhiteBlackListInfo(server_, kMe, kMe, 0, cms::kAccessListAdd);
  EXPECT_EQ(AllowAccess(server_, kMe), 0);
  EXPECT_THAT(answer(),
              testing::AllOf(StartsWith("HTTP/1.1 902 In black list\r\n"),
                             EndsWith("Connection: close\r\n\r\n<HTML><BODY>\r\n<p>In Black "
                                      "List!!</p>\r\n</BODY></HTML>\r\n")));
  SetWhiteBlackListInfo(server_, kMe, kMe, 1, cms::kAccessListRemove);  // not in the list
  SetWhiteBlackListInfo(server_, kMe, kMe, 0, 5);                       // no such operation
  EXPECT_EQ(AllowAccess(server_, kMe), 0);
  SetWhiteBlackListInfo(server_, kMe, kMe, 0, cms::kAccessListRemove);
  EXPECT_EQ(AllowAccess(server_, kMe), 2);
}

TEST_F(HttpAnswerTest, StartsOnceAndAgain) {
  EXPECT_EQ(CreateHttpServer(nullptr), nullptr);
  const cms::tHttpServerConfig without{0, nullptr};
  EXPECT_EQ(CreateHttpServer(&without), nullptr);
  EXPECT_EQ(StopListen(server_), -1);
  EXPECT_EQ(CloseHttpServer(server_), 1);

  const cms::tHttpServerConfig fixed{test::PortOf(test::BoundSocket(SOCK_STREAM)), test::OneUser};
  HttpServer* const server = CreateHttpServer(&fixed);
  RegisterEgi(server, "/", Echo);
  const auto ask = [&] {
    const test::Descriptor connection = test::Connected(fixed.port);
    test::SendText(connection, Request("/"));
    return test::ReadToEnd(connection);
  };
  ASSERT_EQ(StartHttpServer(server), 1);
  EXPECT_EQ(StartHttpServer(server), 0);
  EXPECT_THAT(ask(), EndsWith("-")) << "goes on after the refused start";
  HttpServer* const second = CreateHttpServer(&fixed);
  EXPECT_EQ(StartHttpServer(second), 0) << "the port is taken";
  DestroyHttpServer(second);
  for (int i = 0; i < 3; ++i) {
    CloseHttpServer(server);
    EXPECT_LT(test::Connected(fixed.port), 0);
    ASSERT_EQ(StartHttpServer(server), 1);
    EXPECT_THAT(ask(), EndsWith("-"));
  }
  EXPECT_EQ(StopListen(server), 0);
  EXPECT_LT(test::Connected(fixed.port), 0);
  DestroyHttpServer(server);
}

TEST(HttpServerExports, RefuseNull) {
  std::string text = "before";
  EXPECT_EQ(StartHttpServer(nullptr), 0);
  EXPECT_EQ(RegisterEgi(nullptr, "/", Echo), 0);
  EXPECT_EQ(GetMethod(nullptr, text), 0);
  EXPECT_EQ(text, "");
  EXPECT_EQ(RequestFlushWrite(nullptr, "", 0), 0);
  EXPECT_NE(GetBindIP(), nullptr);
  CloseAllRequest();
}

}  // namespace
