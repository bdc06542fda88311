// The server among clients that flood it, do not read, send nothing or vanish.
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "tests/httpserver/http_server_fixture.h"

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

long RunningThreads() {
  namespace fs = std::filesystem;
  return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
}

double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

class HttpLoadTest : public test::HttpServerTest {
 protected:
  void SetUp() override {
    streaming = 0;
    chunks = 0;
    HttpServerTest::SetUp();
    On("/stream", Stream);
    On("/hello", Hello);
    Start();
  }
  bool WellBehavedClientIsServed() const {
    const std::string answer = Ask(Request("/hello"));
    return answer.ends_with("\r\n\r\nhello");
  }
};

TEST_F(HttpLoadTest, IdleServerCostsNothing) {
  const double before = ProcessorSeconds();
  std::this_thread::sleep_for(milliseconds(400));
  EXPECT_LT(ProcessorSeconds() - before, 0.1);
  EXPECT_TRUE(WellBehavedClientIsServed());
}

TEST_F(HttpLoadTest, ASilentClientIsDroppedSoon) {
  const auto start = steady_clock::now();
  const Descriptor silent = Connected(Port());
  EXPECT_EQ(test::ReadToEnd(silent), "");
  EXPECT_GE(steady_clock::now() - start, milliseconds(25));
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
}

// The client that does not read holds its own handler only; closing ends both kinds.
TEST_F(HttpLoadTest, CloseEndsHundredsOfStreams) {
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
  EXPECT_TRUE(WellBehavedClientIsServed());
  const int before = chunks;
  EXPECT_TRUE(test::WaitFor([&] { return chunks > before + 100; })) << "readers are served";
  CloseHttpServer(server_);
  EXPECT_EQ(streaming, 0);
  reading = false;
  reader.join();
  EXPECT_TRUE(test::WaitFor([&] { return RunningThreads() < threads; }))
      << "the accept thread has ended as well";
}

TEST_F(HttpLoadTest, AnswersOnTheirWayArriveWhenTheServerCloses) {
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
  const long descriptors = test::OpenDescriptors();
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
    EXPECT_TRUE(WellBehavedClientIsServed()) << i;
  }
  EXPECT_TRUE(test::WaitFor([&] { return floods > (test::kSanitized ? 500 : 2000); }));
  EXPECT_TRUE(WellBehavedClientIsServed());
  flooding = false;
  for (std::thread& attacker : attackers) {
    attacker.join();
  }
  EXPECT_TRUE(test::WaitFor([&] {
    return test::OpenDescriptors() <= descriptors && RunningThreads() <= threads + 1;
  })) << test::OpenDescriptors()
      << " descriptors, " << RunningThreads() << " threads";
  EXPECT_TRUE(WellBehavedClientIsServed());
}

// As many connects as come in a second of an attack, from several threads; every third one sends a
// request and none waits for the answer. What the first wave leaves behind is what the next finds.
TEST_F(HttpLoadTest, TenThousandConnectsASecondAndTheMemoryComesBack) {
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
      EXPECT_TRUE(WellBehavedClientIsServed());
    }
    for (std::thread& attacker : attackers) {
      attacker.join();
    }
    const std::chrono::duration<double> took = steady_clock::now() - start;
    RecordProperty("connects_per_second", static_cast<int>(kThreads * kConnects / took.count()));
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(WellBehavedClientIsServed());
    EXPECT_TRUE(test::WaitFor([&] { return RunningThreads() <= threads; }));
    return mallinfo2().uordblks;
  };
  const std::size_t first = wave();
  const std::size_t second = wave();
  if (!test::kSanitized) {
    EXPECT_LT(second, first + (std::size_t{1} << 20)) << "bytes in use after each wave";
  }
}

// Connections wait in the backlog until there are descriptors again; waiting costs little.
TEST_F(HttpLoadTest, OutOfDescriptors) {
  EXPECT_TRUE(WellBehavedClientIsServed());
  const Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  std::vector<Descriptor> hoard;
  {
    const test::DescriptorLimit limit(static_cast<rlim_t>(test::OpenDescriptors()) + 20);
    while (true) {
      Descriptor one(dup(client));
      if (one < 0) {
        break;
      }
      hoard.push_back(std::move(one));
    }
    const sockaddr_in address = test::Loopback(static_cast<std::uint16_t>(Port()));
    ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_TRUE(SendText(client, Request("/hello")));
    const double before = ProcessorSeconds();
    pollfd readable{client, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 300), 0) << "answered without a descriptor";
    EXPECT_LT(ProcessorSeconds() - before, 0.15);
    hoard.clear();
    EXPECT_THAT(test::ReadToEnd(client), EndsWith("hello"));
  }
  EXPECT_TRUE(WellBehavedClientIsServed());
}

}  // namespace
