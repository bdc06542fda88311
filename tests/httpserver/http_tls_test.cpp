// The server by TLS: curl's and openssl's clients, strangers, renewed certificates, attackers.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/tls_front.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using test::Connected;
using test::Descriptor;
using test::ReadToEnd;
using test::Request;
using test::RunShell;
using test::SendText;
using testing::HasSubstr;

constexpr int kParts = 100;
constexpr int kPartSize = 70'001;  // several records, and a rest

int GiveParts(HttpRequest* request, const char*, std::uint32_t) {
  std::string part(kPartSize, 'a');
  for (int i = 0; i < kParts; ++i) {
    part.back() = i % 10 == 9 ? '\n' : 'b';
    EXPECT_EQ(RequestFlushWrite(request, part.data(), kPartSize), 1);
  }
  return ForceDissconnect(request);
}

std::atomic<bool> endless;

int GiveForEver(HttpRequest* request, const char*, std::uint32_t) {
  endless = true;
  const std::string part(kPartSize, 'a');
  while (RequestFlushWrite(request, part.data(), kPartSize) == 1) {
  }
  endless = false;
  return 0;
}

int Greet(HttpRequest* request, const char*, std::uint32_t) {
  return RequestWrite(request, "well\n");
}

class HttpTls : public test::HttpServerTest {
 protected:
  void SetUp() override {
    Create(0);
    Put(own_, "own");
  }
  void Create(std::uint32_t most) {
    const cms::tHttpServerConfigEx config{
        0,
        [](void*, const std::string& user, std::string& password) {
          return test::OneUser(user, password);
        },
        nullptr, 0, most};
    DestroyHttpServer(server_);
    server_ = CreateHttpServerEx(&config);
    On("/greet", &Greet);
    On("/auth/greet", &Greet);
    On("/parts", &GiveParts);
    On("/forever", &GiveForEver);
  }
  void Put(const test::Certificate& certificate, const std::string& name) const {
    std::ofstream(Path(name + ".pem")) << certificate.Pem();
    std::ofstream(Path(name + ".key")) << certificate.KeyPem();
  }
  std::string Path(const std::string& name) const { return folder_.Path() + "/" + name; }
  std::string Secure(const std::string& authorities = {}) {
    std::string problem;
    const int done =
        SetHttpServerTls(server_, Path("own.pem"), Path("own.key"), authorities, problem);
    EXPECT_EQ(done != 0, problem.empty());
    return problem;
  }
  test::ShellResult Curl(const std::string& target, const std::string& options = {}) const {
    return RunShell("curl -sS -m 20 --cacert " + Path("own.pem") + " " + options +
                    " https://127.0.0.1:" + std::to_string(Port()) + target);
  }

  const test::TemporaryFolder folder_;
  const test::Certificate own_{"127.0.0.1"};
};

TEST_F(HttpTls, ClientsAreServedAndPlainOnesToldHow) {
  ASSERT_EQ(Secure(), "");
  Start();
  EXPECT_EQ(Curl("/greet").output, "well\n");
  EXPECT_EQ(Curl("/greet", "--tls-max 1.2").output, "well\n");
  EXPECT_EQ(Curl("/auth/greet", "--digest -u operator:secret").output, "well\n");
  EXPECT_THAT(Curl("/auth/greet", "-i --digest -u operator:guess").output, HasSubstr("401"));
  // Without a length only the goodbye tells curl that nothing is missing.
  const auto parts = Curl("/parts", "-o " + Path("parts") + " -w '%{size_download}'");
  EXPECT_EQ(parts.output, std::to_string(kParts * kPartSize)) << parts.errors;
  EXPECT_EQ(parts.status, 0) << parts.errors;
  EXPECT_EQ(RunShell("wc -l <" + Path("parts")).output, std::to_string(kParts / 10) + "\n");

  EXPECT_NE(RunShell("curl -sS " + Url("/greet").replace(0, 4, "https")).status, 0);
  EXPECT_THAT(RunShell("curl -sSi " + Url("/greet")).output,
              AllOf(HasSubstr("400"), HasSubstr("https://"), testing::Not(HasSubstr("well"))));
  // A second connection goes on where the first one ended: no whole handshake for each request.
  const std::string connect = "openssl s_client -connect 127.0.0.1:" + std::to_string(Port());
  EXPECT_THAT(
      RunShell("printf 'GET /greet HTTP/1.1\\r\\n\\r\\n' | " + connect + " -ign_eof -sess_out " +
               Path("session") + " 2>&1 && printf 'GET /greet HTTP/1.1\\r\\n\\r\\n' | " + connect +
               " -ign_eof -sess_in " + Path("session") + " 2>&1")
          .output,
      AllOf(HasSubstr("New, TLSv1.3"), HasSubstr("Reused, TLSv1.3")));
}

TEST_F(HttpTls, WhoIsNotOfTheAuthorityLearnsNothing) {
  Put(test::Certificate("127.0.0.1"), "other");
  ASSERT_EQ(Secure(Path("own.pem")), "");
  Start();
  for (const std::string& stranger :
       {std::string(), "--cert " + Path("other.pem") + " --key " + Path("other.key")}) {
    const auto refused = Curl("/greet", "-i " + stranger);
    EXPECT_NE(refused.status, 0);
    EXPECT_EQ(refused.output, "");
  }
  EXPECT_EQ(Curl("/greet", "--cert " + Path("own.pem") + " --key " + Path("own.key")).output,
            "well\n");
}

TEST_F(HttpTls, ARenewedCertificateNeedsNoRestartAndABadOneIsNoHarm) {
  EXPECT_THAT((std::ofstream(Path("own.key")) << "no key", Secure()), HasSubstr("own.key"));
  std::filesystem::remove(Path("own.pem"));
  EXPECT_THAT(Secure(), HasSubstr("No such file"));
  Put(own_, "own");
  ASSERT_EQ(Secure(), "");
  Start();
  std::string problem;
  EXPECT_EQ(SetHttpServerTls(server_, Path("own.pem"), Path("own.key"), "", problem), 0);
  const std::string first = Path("first.pem");
  std::filesystem::copy_file(Path("own.pem"), first);
  std::ofstream(Path("own.key")) << "no key";
  std::this_thread::sleep_for(seconds(6));
  EXPECT_EQ(Curl("/greet", "--cacert " + first).output, "well\n");
  Put(test::Certificate("127.0.0.1"), "own");
  EXPECT_TRUE(test::WaitFor([&] { return Curl("/greet").output == "well\n"; }, seconds(20)));
  EXPECT_NE(Curl("/greet", "--cacert " + first).status, 0);
}

// Of ten places nine are taken by those who begin a handshake and say no more.
TEST_F(HttpTls, HalfHandshakesAndGarbageAreGivenUp) {
  Create(10);
  ASSERT_EQ(Secure(), "");
  Start();
  std::vector<Descriptor> halves;
  for (int i = 0; i < 9; ++i) {
    halves.push_back(Connected(Port()));
    SendText(halves.back(), std::string("\x16\x03\x01\x02\x00\x01", 6));
  }
  const auto begin = steady_clock::now();
  EXPECT_EQ(Curl("/greet").output, "well\n");
  for (const std::string& garbage :
       {std::string("\x16\x03\x01 garbage of forty bytes and some more..."), std::string("\0\1", 2),
        std::string("\x80\x2e\x01"), std::string(70'000, '\xff')}) {
    const Descriptor connection = Connected(Port());
    SendText(connection, garbage);
    shutdown(connection, SHUT_WR);
    EXPECT_THAT(ReadToEnd(connection), testing::Not(HasSubstr("HTTP")));
  }
  ReadToEnd(halves.back());
  EXPECT_LT(steady_clock::now() - begin, seconds(8));
  EXPECT_EQ(Curl("/greet").output, "well\n");
}

TEST_F(HttpTls, ClosingEndsAStreamThatNobodyReads) {
  ASSERT_EQ(Secure(), "");
  Start();
  std::thread slow([&] { Curl("/forever", "-m 2 --limit-rate 1000 -o /dev/null"); });
  EXPECT_TRUE(test::WaitFor([] { return endless.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // its buffers are full
  const auto begin = steady_clock::now();
  CloseHttpServer(server_);
  EXPECT_LT(steady_clock::now() - begin, seconds(3));
  EXPECT_FALSE(endless);
  slow.join();
}

}  // namespace
