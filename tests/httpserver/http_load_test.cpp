// The server among clients that flood it, do not read, send nothing or vanish.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "cms/httpserver/internal/connection_threads.h"
#include "tests/httpserver/http_server_fixture.h"
#include "tests/support/process_state.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Connected;
using test::Descriptor;
using test::Request;
using test::SendText;
using testing::EndsWith;

std::atomic<int> streaming;  // handlers inside Stream
std::atomic<int> chunks;

// Streams until told that nobody takes it any more.
int Stream(HttpRequest* request, const char*, std::uint32_t) {
  static const std::string chunk(65536, 's');
  ++streaming;
  while (RequestFlushWrite(request, chunk.data(), static_cast<int>(chunk.size())) == 1) {
    ++chunks;
  }
  --streaming;
  EXPECT_EQ(RequestFlushWrite(request, "x", 1), 0);
  return 0;
}

int Hello(HttpRequest* request, const char*, std::uint32_t) {
  return RequestWrite(request, "hello");
}

// Those that wait for connections stay, in a small number.
constexpr long kWaiting = cms::ConnectionThreads::kMostWaiting;

long RunningThreads() {
  return static_cast<long>(test::RunningThreads());
}

long OpenDescriptors() {
  return static_cast<long>(test::OpenDescriptors());
}

double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

class HttpLoadTest : public test::HttpServerTest {
 protected:
  void SetUp() override { SetUpFor(2000); }
  void SetUpFor(std::uint32_t connections) {
    streaming = 0;
    chunks = 0;
    DestroyHttpServer(server_);
    const cms::tHttpServerConfigEx config{
        .passwordLookup = [](void*, const std::string&, std::string&) { return 0; },
        .maxConnections = connections};
    server_ = CreateHttpServerEx(&config);
    ASSERT_NE(server_, nullptr);
    On("/stream", Stream);
    On("/hello", Hello);
  }
  bool Served() const { return Ask(Request("/hello")).ends_with("\r\n\r\nhello"); }
};

TEST_F(HttpLoadTest, IdleServerCostsNothing) {
  Start();
  const double before = ProcessorSeconds();
  std::this_thread::sleep_for(milliseconds(400));
  EXPECT_LT(ProcessorSeconds() - before, 0.1);
  EXPECT_TRUE(Served());
}

TEST_F(HttpLoadTest, ASilentClientIsDroppedSoon) {
  Start();
  const auto start = steady_clock::now();
  const Descriptor silent = Connected(Port());
  EXPECT_EQ(test::ReadToEnd(silent), "");
  EXPECT_GE(steady_clock::now() - start, milliseconds(25));
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
}

// The client that does not read holds its own handler only; closing ends both kinds.
TEST_F(HttpLoadTest, CloseEndsHundredsOfStreams) {
  Start();
  constexpr int kStreams = test::kSanitized ? 150 : 300;
  const long threads = RunningThreads();
  std::vector<Descriptor> clients;
  for (int i = 0; i < kStreams; ++i) {
    clients.push_back(Connected(Port()));
    ASSERT_TRUE(SendText(clients.back(), Request("/stream")));
  }
  std::atomic<bool> reading = true;
  std::thread reader([&] {
    std::vector<char> buffer(65536);
    while (reading) {
      for (int i = 0; i < kStreams; i += 2) {
        recv(clients[static_cast<std::size_t>(i)], buffer.data(), buffer.size(), MSG_DONTWAIT);
      }
    }
  });
  ASSERT_TRUE(test::WaitFor([] { return streaming == kStreams; }));
  EXPECT_TRUE(Served());
  const int before = chunks;
  EXPECT_TRUE(test::WaitFor([&] { return chunks > before + 100; })) << "readers are served";
  CloseHttpServer(server_);
  EXPECT_EQ(streaming, 0);
  reading = false;
  reader.join();
  EXPECT_TRUE(test::WaitFor([&] { return RunningThreads() < threads; }))
      << "those that wait for connections have ended as well";
}

TEST_F(HttpLoadTest, AnswersOnTheirWayArriveWhenTheServerCloses) {
  Start();
  static std::atomic<bool> inside;
  static std::atomic<bool> leave;
  inside = leave = false;
  On("/slow", [](HttpRequest* request, const char*, std::uint32_t) {
    inside = true;
    test::WaitFor([] { return leave.load(); });
    return RequestWrite(request, "finished");
  });
  const Descriptor client = Connected(Port());
  SendText(client, Request("/slow"));
  ASSERT_TRUE(test::WaitFor([] { return inside.load(); }));
  std::atomic<bool> closed = false;
  std::thread closer([&] {
    CloseHttpServer(server_);
    closed = true;
  });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(closed) << "the handler still runs";
  leave = true;
  closer.join();
  EXPECT_THAT(test::ReadToEnd(client), EndsWith("finished"));
}

// Clients that vanish in the middle of an answer: no SIGPIPE, and the handlers end.
TEST_F(HttpLoadTest, ClientsThatVanish) {
  Start();
  for (int i = 0; i < 20; ++i) {
    Descriptor client = Connected(Port());
    SendText(client, Request("/stream"));
    char byte = 0;
    ASSERT_EQ(recv(client, &byte, 1, 0), 1);
    if (i % 2 != 0) {
      const linger hard{1, 0};
      setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
  }
  EXPECT_TRUE(test::WaitFor([] { return streaming == 0; }));
}

TEST_F(HttpLoadTest, AFloodOfEveryKind) {
  Start();
  const long descriptors = OpenDescriptors();
  const long threads = RunningThreads();
  std::atomic<bool> flooding = true;
  std::atomic<int> floods = 0;
  const auto flood = [&](const std::string& bytes, bool read) {
    while (flooding) {
      const Descriptor client = Connected(Port());
      if (client >= 0 && (bytes.empty() || SendText(client, bytes)) && read) {
        test::ReadToEnd(client);
      }
      ++floods;
    }
  };
  std::vector<std::thread> attackers;
  attackers.emplace_back(flood, "", false);
  attackers.emplace_back(flood, "\x16\x03\x01 garbage", false);
  attackers.emplace_back(flood, Request("/hello"), false);
  attackers.emplace_back(flood, Request("/hello"), true);
  attackers.emplace_back([&] {  // a thousand that stay, one byte at a time
    std::vector<Descriptor> held(test::kSanitized ? 200 : 1000);
    while (flooding) {
      for (Descriptor& one : held) {
        if (one < 0 || !SendText(one, "G")) {
          one = Connected(Port());
        }
      }
    }
  });
  for (int i = 0; i < (test::kSanitized ? 6 : 40); ++i) {
    EXPECT_TRUE(Served()) << i;
  }
  EXPECT_TRUE(test::WaitFor([&] { return floods > (test::kSanitized ? 500 : 2000); }));
  EXPECT_TRUE(Served());
  flooding = false;
  for (std::thread& attacker : attackers) {
    attacker.join();
  }
  EXPECT_TRUE(test::WaitFor([&] {
    return OpenDescriptors() <= descriptors && RunningThreads() < threads + kWaiting;
  })) << OpenDescriptors()
      << " descriptors, " << RunningThreads() << " threads";
  EXPECT_TRUE(Served());
}

// As many connects as come in a second of an attack, from several threads; every third one sends a
// request and none waits for the answer. What the first wave leaves behind is what the next finds.
TEST_F(HttpLoadTest, TenThousandConnectsASecondAndTheMemoryComesBack) {
  Start();
  constexpr int kThreads = 4;
  constexpr int kConnects = (test::kSanitized ? 2000 : 10000) / kThreads;
  const long threads = RunningThreads();
  const auto wave = [&] {
    std::atomic<int> refused = 0;
    const auto start = steady_clock::now();
    std::vector<std::thread> attackers;
    for (int i = 0; i < kThreads; ++i) {
      attackers.emplace_back([&] {
        const linger hard{1, 0};  // leaves no port behind
        for (int each = 0; each < kConnects; ++each) {
          const Descriptor client = Connected(Port());
          setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
          refused += client < 0 || (each % 3 == 0 && !SendText(client, Request("/hello")));
        }
      });
    }
    for (int i = 0; i < 5; ++i) {
      EXPECT_TRUE(Served());
    }
    for (std::thread& attacker : attackers) {
      attacker.join();
    }
    const std::chrono::duration<double> took = steady_clock::now() - start;
    RecordProperty("connects_per_second", static_cast<int>(kThreads * kConnects / took.count()));
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(Served());
    EXPECT_TRUE(test::WaitFor([&] { return RunningThreads() < threads + kWaiting; }));
    return mallinfo2().uordblks;
  };
  const std::size_t first = wave();
  const std::size_t second = wave();
  if (!test::kSanitized) {
    EXPECT_LT(second, first + (std::size_t{1} << 20)) << "bytes in use after each wave";
  }
}

std::atomic<bool> held;
std::atomic<int> holding;

// Keeps its connection until it is let go.
int Hold(HttpRequest* request, const char*, std::uint32_t) {
  ++holding;
  test::WaitFor([] { return !held; });
  --holding;
  return RequestWrite(request, "let go");
}

// Connections wait in the backlog until there are descriptors again; waiting costs little. The
// threads that wait have theirs already.
TEST_F(HttpLoadTest, OutOfDescriptors) {
  On("/hold", Hold);
  Start();
  EXPECT_TRUE(Served());
  held = true;
  std::vector<Descriptor> clients;
  for (long i = 0; i < kWaiting + 1; ++i) {
    clients.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  }
  std::vector<Descriptor> hoard;
  const test::DescriptorLimit limit(static_cast<rlim_t>(OpenDescriptors()) + 20);
  while (true) {
    Descriptor one(dup(clients[0]));
    if (one < 0) {
      break;
    }
    hoard.push_back(std::move(one));
  }
  for (const Descriptor& client : clients) {
    const sockaddr_in address = test::Loopback(static_cast<std::uint16_t>(Port()));
    ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(SendText(client, Request("/hold")));
  }
  const double before = ProcessorSeconds();
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_LT(ProcessorSeconds() - before, 0.2);
  EXPECT_LT(holding, kWaiting + 1) << "answered without a descriptor";
  hoard.clear();
  EXPECT_TRUE(test::WaitFor([] { return holding == kWaiting + 1; }));
  held = false;
  for (const Descriptor& client : clients) {
    EXPECT_THAT(test::ReadToEnd(client), EndsWith("let go"));
  }
}

// So many are served at once, and whoever waits is when one of them goes.
TEST_F(HttpLoadTest, ClientsThatDoNotReadTakeNoMoreThanTheirShare) {
  SetUpFor(10);
  Start();
  const long descriptors = OpenDescriptors();
  std::vector<Descriptor> clients(40);
  for (Descriptor& each : clients) {
    each = Connected(Port());
    ASSERT_TRUE(SendText(each, Request("/stream")));
  }
  const auto ofServer = [&] {
    return OpenDescriptors() - descriptors - static_cast<long>(clients.size());
  };
  ASSERT_TRUE(test::WaitFor([] { return streaming == 10; }));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(streaming, 10);
  EXPECT_LE(ofServer(), 10);
  clients.resize(3);
  EXPECT_TRUE(Served()) << "those that went make place";
}

// The bound is a quarter of what the process may have; the denied may stay to read why, until they
// are too many.
TEST_F(HttpLoadTest, DeniedClientsLeaveRoomForOthers) {
  SetUpFor(0);
  constexpr std::uint32_t kDenied = INADDR_LOOPBACK + 4;
  SetWhiteBlackListInfo(server_, INADDR_LOOPBACK, INADDR_LOOPBACK, 2, cms::kAccessListAdd);
  SetWhiteBlackListInfo(server_, kDenied, kDenied, 1, cms::kAccessListAdd);
  EnableWhiteBlackList(server_, 1);
  {
    const test::DescriptorLimit limit(240);
    Start();
  }
  const long descriptors = OpenDescriptors();
  std::vector<Descriptor> clients;
  long most = 0;
  for (int i = 0; i < 400; ++i) {
    Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = test::Loopback(0);
    address.sin_addr.s_addr = htonl(kDenied);
    ASSERT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    address = test::Loopback(static_cast<std::uint16_t>(Port()));
    ASSERT_EQ(connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    SendText(made, Request("/hello"));
    clients.push_back(std::move(made));
    most = std::max(most, OpenDescriptors() - descriptors - static_cast<long>(clients.size()));
    if (i % 50 == 49) {
      EXPECT_TRUE(Served()) << i;
    }
  }
  EXPECT_LE(most, 60);
  EXPECT_TRUE(test::WaitFor(
      [&] { return OpenDescriptors() - descriptors <= static_cast<long>(clients.size()); }));
}

// Short connections share threads; one whose priority or handle was given away ends with its own.
TEST_F(HttpLoadTest, ThreadsServeOneAfterTheOther) {
  static std::mutex lock;
  static std::set<pid_t> threads;
  static int priority;  // of this process, which may be a nice one
  threads.clear();
  priority = getpriority(PRIO_PROCESS, 0);
  On("/who", [](HttpRequest* request, const char*, std::uint32_t) {
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())), priority);
    const std::lock_guard guard(lock);
    threads.insert(gettid());
    return RequestWrite(request, "me");
  });
  On("/slowly", [](HttpRequest* request, const char*, std::uint32_t) {
    SetRequestThreadPriority(request, -2);
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())), 10);
    return RequestWrite(request, "slow");
  });
  Start();
  for (int i = 0; i < 40; ++i) {
    ASSERT_THAT(Ask(Request("/who")), EndsWith("me"));
  }
  EXPECT_LE(threads.size(), static_cast<std::size_t>(kWaiting) + 1);
  for (int i = 0; i < 20; ++i) {
    ASSERT_THAT(Ask(Request("/slowly")), EndsWith("slow"));
    ASSERT_THAT(Ask(Request("/who")), EndsWith("me"));
  }
}

TEST_F(HttpLoadTest, AnExceptionEndsItsConnectionAlone) {
  On("/throws", [](HttpRequest*, const char*, std::uint32_t) -> int {
    throw std::runtime_error("a handler's");
  });
  Start();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Ask(Request("/throws")), "");
    EXPECT_TRUE(Served());
  }
}

TEST_F(HttpLoadTest, StoppedListeningAndClosedWithNobodyThere) {
  for (int i = 0; i < 20; ++i) {
    Start();
    EXPECT_EQ(StartHttpServer(server_), 0);
    if (i % 2 != 0) {
      EXPECT_TRUE(Served());
    }
    if (i % 3 != 0) {
      EXPECT_EQ(StopListen(server_), 0);
      EXPECT_EQ(StartHttpServer(server_), 0) << "closed first";
    }
    CloseHttpServer(server_);
  }
}

}  // namespace
