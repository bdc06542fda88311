#include "fleet/engine_client.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fleet/camera_secret.h"
#include "fleet/fleet_watch.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/scripted_http_server.h"
#include "tests/support/wait.h"

namespace {

using namespace cms::fleet;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::HttpRequestText;
using test::ScriptedHttpServer;

constexpr char kHeader[] = R"("header":{"cluster_id":"7","revision":"20"})";

std::string UrlOf(const ScriptedHttpServer& server) {
  return "http://127.0.0.1:" + std::to_string(server.Port());
}

std::string Status(const char* line, const std::string& body) {
  return "HTTP/1.1 " + std::string(line) + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

TEST(EngineClient, RenewalWithoutATimeIsALostLeaseAndNoError) {
  ScriptedHttpServer server([](const HttpRequestText&) {
    return ScriptedHttpServer::Ok(std::string(R"({"result":{)") + kHeader + R"(,"ID":"5"}})");
  });
  EngineClient engine({{UrlOf(server)}, "", "", "", "", ""});
  const auto renewal = engine.Renew(5);
  ASSERT_TRUE(renewal);
  EXPECT_EQ(renewal->ttl, 0);
}

TEST(EngineClient, NextMemberIsAskedWhereOneHangsHasNoLeaderOrIsNone) {
  ScriptedHttpServer hangs([](const HttpRequestText&) { return std::string(); });
  hangs.KeepOpen("");
  ScriptedHttpServer leaderless([](const HttpRequestText&) {
    return Status("503 Service Unavailable", R"({"error":"etcdserver: no leader","code":14})");
  });
  ScriptedHttpServer well([](const HttpRequestText&) {
    return ScriptedHttpServer::Ok(std::string("{") + kHeader + "}");
  });
  EngineClient engine({{UrlOf(hangs), UrlOf(leaderless), UrlOf(well)}, "", "", "", "", ""});
  const auto begun = steady_clock::now();
  EXPECT_TRUE(engine.Put("a", "b"));
  EXPECT_LT(steady_clock::now() - begun, milliseconds(2'500));
  EXPECT_TRUE(engine.Put("a", "b")) << "and that one is asked first from then on";
  EXPECT_EQ(hangs.Requests().size(), 1u);
}

TEST(EngineClient, WhoWaitsLongGetsTheAnswerOfASlowMemberAndOthersAskTheNext) {
  const auto answer = ScriptedHttpServer::Ok(std::string("{") + kHeader + "}");
  ScriptedHttpServer slow([&](const HttpRequestText&) {
    std::this_thread::sleep_for(2 * EngineClient::kMemberWait);
    return answer;
  });
  ScriptedHttpServer well([&](const HttpRequestText&) { return answer; });
  EngineAccess access{{UrlOf(slow), UrlOf(well)}, "", "", "", "", ""};
  access.waitsLong = true;
  EXPECT_TRUE(EngineClient(access).Put("a", "b"));
  EXPECT_TRUE(well.Requests().empty()) << "what is done once is not asked for twice";
  access.waitsLong = false;
  EXPECT_TRUE(EngineClient(access).Put("a", "b"));
  EXPECT_EQ(well.Requests().size(), 1u);
}

TEST(EngineClient, ForgottenLoginIsMadeAnewAndRefusalsAreNotRepeated) {
  std::atomic<int> logins = 0;
  ScriptedHttpServer server([&](const HttpRequestText& request) {
    if (request.Target() == "/v3/auth/authenticate") {
      EXPECT_THAT(request.body, testing::HasSubstr(R"("password":"a\"b")"));
      return ScriptedHttpServer::Ok(std::string("{") + kHeader + R"(,"token":"t)" +
                                    std::to_string(++logins) + "\"}");
    }
    if (request.Target() == "/v3/kv/txn") {
      return Status("400 Bad Request", R"({"error":"etcdserver: too many operations","code":3})");
    }
    return request.Header("Authorization") == "t2"
               ? ScriptedHttpServer::Ok(std::string("{") + kHeader + "}")
               : Status("401 Unauthorized", R"({"error":"invalid auth token","code":16})");
  });
  EngineClient engine({{UrlOf(server)}, "", "", "", "root", "a\"b"});
  EXPECT_FALSE(engine.Put("a", "b")) << "a new login was refused as well";
  EXPECT_TRUE(engine.WasRefused());
  EXPECT_TRUE(engine.Put("a", "b"));
  EXPECT_EQ(logins, 2);
  EXPECT_FALSE(engine.Transact(EngineTransaction().Put("a", "b")));
  EXPECT_TRUE(engine.WasRefused());
  EXPECT_THAT(engine.Problem(), testing::HasSubstr("too many operations"));
}

TEST(EngineClient, AnswersThatAreNoneAreNotTaken) {
  for (const char* body : {"", "[]", "{", R"({"header":7})", R"({"header":{"revision":"x"}})",
                           R"({"header":{"revision":"1"},"kvs":[{"key":"?"}]})"}) {
    ScriptedHttpServer server([&](const HttpRequestText&) { return ScriptedHttpServer::Ok(body); });
    EngineClient engine({{UrlOf(server)}, "", "", "", "", ""});
    EXPECT_FALSE(engine.Range("a")) << body;
  }
}

TEST(CameraSecret, OpensForItsCameraAloneAndWithKeysOfBefore) {
  const SecretKeys first(SecretKeys::MakeFileText());
  const std::string sealed = first.Seal("pass:word", "door");
  EXPECT_THAT(sealed, testing::Not(testing::HasSubstr("pass")));
  EXPECT_EQ(first.Open(sealed, "door"), "pass:word");
  EXPECT_FALSE(first.Open(sealed, "gate"));
  EXPECT_NE(first.Seal("pass:word", "door"), sealed);
  std::string changed = sealed;
  changed[10] = changed[10] == 'A' ? 'B' : 'A';
  EXPECT_FALSE(first.Open(changed, "door"));
  const std::string old = SecretKeys::MakeFileText();
  const std::string fresh = "k2" + SecretKeys::MakeFileText().substr(2);
  EXPECT_EQ(SecretKeys(fresh + old).Open(SecretKeys(old).Seal("x", "door"), "door"), "x");
  EXPECT_TRUE(SecretKeys(fresh + old).Seal("x", "door").starts_with("k2:"));
  EXPECT_ANY_THROW(SecretKeys("k1:short\n"));
}

// One member of the real engine.
class RealEngine : public testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/etcd", X_OK) != 0) {
      GTEST_SKIP() << "etcd-server is not installed";
    }
    Start();
  }
  void TearDown() override { Kill(); }

  void Start() {
    const std::string url = "http://127.0.0.1:" + std::to_string(port_);
    const std::string peer = "http://127.0.0.1:" + std::to_string(port_ + 1);
    const std::string data = folder_.Path() + "/data";
    pid_ = fork();
    if (pid_ == 0) {
      const int log = open((folder_.Path() + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(log, 1);
      dup2(log, 2);
      execl("/usr/bin/etcd", "etcd", "--data-dir", data.c_str(), "--listen-client-urls",
            url.c_str(), "--advertise-client-urls", url.c_str(), "--listen-peer-urls", peer.c_str(),
            "--initial-advertise-peer-urls", peer.c_str(), "--initial-cluster",
            ("default=" + peer).c_str(), nullptr);
      _exit(127);
    }
    access_.members = {url};
    EngineClient engine(access_);
    ASSERT_TRUE(test::WaitFor([&] { return engine.Range("a").has_value(); }));
  }
  void Kill() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  test::TemporaryFolder folder_;
  const int port_ = 20'000 + getpid() % 20'000 / 2 * 2;
  pid_t pid_ = -1;
  EngineAccess access_;
};

TEST_F(RealEngine, StepsHoldTheirConditionsAndLeasesEnd) {
  EngineClient engine(access_);
  const auto made =
      engine.Transact(EngineTransaction().IfCreated("/a", 0).Put("/a", std::string("x\0y", 3)));
  ASSERT_TRUE(made && made->succeeded);
  const auto read = engine.Range("/a");
  ASSERT_TRUE(read && read->keys.size() == 1);
  EXPECT_EQ(read->keys[0].value, std::string("x\0y", 3));
  EngineTransaction both;
  both.Nested(EngineTransaction().IfCreated("/a", 0).Put("/a", "again"))
      .Nested(EngineTransaction().IfChanged("/a", read->keys[0].modRevision).Put("/b", "1"))
      .Nested(EngineTransaction().IfPresent("/none").Put("/c", "1"));
  const auto done = engine.Transact(both);
  ASSERT_TRUE(done);
  EXPECT_THAT(done->nested, testing::ElementsAre(false, true, false));

  const auto lease = engine.Grant(2);
  ASSERT_TRUE(lease);
  ASSERT_TRUE(engine.Put("/leased", "1", lease->lease));
  EXPECT_GT(engine.Renew(lease->lease)->ttl, 0);
  ASSERT_TRUE(engine.Revoke(lease->lease));
  EXPECT_TRUE(engine.Range("/leased")->keys.empty());
  EXPECT_EQ(engine.Renew(lease->lease)->ttl, 0);

  for (int i = 0; i < 45; ++i) {  // several pages
    EngineTransaction page;
    for (int j = 0; j < 50; ++j) {
      page.Put("/many/" + std::to_string(i * 50 + j), "v");
    }
    ASSERT_TRUE(engine.Transact(page));
  }
  EXPECT_EQ(engine.Load("/many/")->keys.size(), 2'250u);
}

TEST_F(RealEngine, WatchTellsEachChangeOnceAcrossARestart) {
  EngineClient engine(access_);
  ASSERT_TRUE(engine.Put(FleetKey(), ValueOf(FleetSettings{1, true})));
  std::atomic<int> loads = 0;
  std::atomic<int> changes = 0;
  FleetWatch watch(
      access_, [&](const FleetView&, std::int64_t) { ++loads; },
      [&](const EngineEvent&) { ++changes; });
  ASSERT_TRUE(test::WaitFor([&] { return loads == 1; }));
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(engine.Put(GoneKey("rec" + std::to_string(i)), R"({"t":1})"));
  }
  ASSERT_TRUE(test::WaitFor([&] { return changes == 10; }));
  Kill();
  Start();
  ASSERT_TRUE(engine.Delete(GoneKey("rec1")));
  EXPECT_TRUE(test::WaitFor([&] { return changes == 11; }));
  EXPECT_EQ(loads, 1) << "it resumes where it was";
}

}  // namespace
