// What it costs to send 1 Mbit/s to each of many clients at once: 5,000 bytes 25 times a second.
// The HTTP server's streams beside those of libmicrohttpd and a file that nginx hands out at that
// rate; the TCP server's broadcast beside a plain loop over the sockets.
//
//   fan_out_bench [CLIENTS [SECONDS]]             200 clients, 10 seconds unless told
//
// "cores" is the processor time of the server's process by the time that passed; "worst" is the
// rate of the client that got least, of the goal of 1.
#include <arpa/inet.h>
#include <microhttpd.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/httpserver/nginx.h"
#include "bench/httpserver/web_servers.h"
#include "bench/support/child_process.h"
#include "bench/support/processor_time.h"
#include "cms/exports/http_server_exports.h"
#include "cms/exports/tcp_server_exports.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = 5000;
constexpr std::chrono::milliseconds kTurn{40};
constexpr double kRate = 1e6 / 8;  // bytes a second for each client

const std::string& Block() {
  static const std::string block(kBlock, 'b');
  return block;
}

// --- The servers, each in a process of its own ---------------------------------------------------

int Stream(HttpRequest* request, const char*, std::uint32_t) {
  auto next = Clock::now();
  while (RequestFlushWrite(request, Block().data(), static_cast<int>(kBlock)) == 1) {
    std::this_thread::sleep_until(next += kTurn);
  }
  return 0;
}

void RunOurs() {
  const cms::tHttpServerConfig config{0, [](const std::string&, std::string&) { return 0; }};
  HttpServer* const server = CreateHttpServer(&config);
  RegisterEgi(server, "/page", Stream);
  EnableWholeRequests(server, 1);
  StartHttpServer(server);
  bench::ServeUntilInputEnds(GetHttpServerPort(server));
  DestroyHttpServer(server);
}

std::atomic<bool> ending;

// One block a call; the position tells how many there were.
ssize_t NextBlock(void* start, std::uint64_t position, char* buffer, std::size_t size) {
  const auto turns = static_cast<int>(position / kBlock);
  std::this_thread::sleep_until(*static_cast<Clock::time_point*>(start) + turns * kTurn);
  if (ending) {
    return MHD_CONTENT_READER_END_OF_STREAM;
  }
  const std::size_t count = std::min(size, kBlock - position % kBlock);
  std::memcpy(buffer, Block().data(), count);
  return static_cast<ssize_t>(count);
}

MHD_Result AnswerStream(void*, MHD_Connection* connection, const char*, const char*, const char*,
                        const char*, std::size_t*, void**) {
  MHD_Response* const response = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, 2 * kBlock, &NextBlock, new Clock::time_point(Clock::now()),
      [](void* start) { delete static_cast<Clock::time_point*>(start); });
  const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return result;
}

void RunMicrohttpd() {
  bench::ServeMicrohttpd(&AnswerStream, bench::kMicrohttpdThreads, 0, [] { ending = true; });
}

void RunBroadcast() {
  cms::tTcpServerConfig config;
  CTcpServer* const server = CreateTcpServer(&config);
  StartTcpServer(server);
  std::thread sender([&] {
    for (auto next = Clock::now(); !ending; std::this_thread::sleep_until(next += kTurn)) {
      EnableSendData(server, INADDR_LOOPBACK, 1);
      SendTcpData(server, Block().data(), static_cast<int>(kBlock));
    }
  });
  bench::ServeUntilInputEnds(config.localPort);
  ending = true;
  sender.join();
  DestroyTcpServer(server);
}

// The least that anybody could do: no queue, and a client that does not read misses bytes.
void RunPlainLoop() {
  const int listening = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  listen(listening, SOMAXCONN);
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  getsockname(listening, reinterpret_cast<sockaddr*>(&bound), &size);
  std::thread sender([&] {
    std::vector<int> clients;
    for (auto next = Clock::now(); !ending; std::this_thread::sleep_until(next += kTurn)) {
      for (int one = 0; (one = accept(listening, nullptr, nullptr)) >= 0;) {
        clients.push_back(one);
      }
      for (const int each : clients) {
        send(each, Block().data(), kBlock, MSG_NOSIGNAL | MSG_DONTWAIT);
      }
    }
  });
  bench::ServeUntilInputEnds(ntohs(bound.sin_port));
  ending = true;
  sender.join();
}

// --- The clients ---------------------------------------------------------------------------------

std::vector<pollfd> Connect(int port, int count) {
  constexpr char kRequest[] = "GET /page HTTP/1.1\r\nHost: bench\r\n\r\n";
  std::vector<pollfd> clients;
  for (int i = 0; i < count; ++i) {
    const int made = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(made, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(made, kRequest, sizeof kRequest - 1, MSG_NOSIGNAL) < 0) {
      std::fputs("fan_out_bench: cannot connect\n", stderr);
      std::exit(1);
    }
    clients.push_back({made, POLLIN, 0});
  }
  return clients;
}

// Reads for so long; bytes of each client.
std::vector<double> Read(std::vector<pollfd>& clients, double seconds) {
  std::vector<double> got(clients.size());
  std::vector<char> buffer(65536);
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) {
    // Not at every byte: the clients' own cost stays small.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    poll(clients.data(), clients.size(), 100);
    for (std::size_t i = 0; i < clients.size(); ++i) {
      if ((clients[i].revents & POLLIN) != 0) {
        got[i] += static_cast<double>(
            std::max<ssize_t>(recv(clients[i].fd, buffer.data(), buffer.size(), MSG_DONTWAIT), 0));
      }
    }
  }
  return got;
}

void Measure(const std::string& name, int pid, int port, int count, double seconds) {
  std::vector<pollfd> clients = Connect(port, count);
  Read(clients, 2);  // until all of them stream
  const double before = bench::ProcessorTime(pid);
  const auto start = Clock::now();
  const std::vector<double> got = Read(clients, seconds);
  const std::chrono::duration<double> took = Clock::now() - start;
  const double cores = (bench::ProcessorTime(pid) - before) / 1e6 / took.count();
  double sum = 0;
  for (const double each : got) {
    sum += each;
  }
  std::printf("%-24s %7d %9.3f %11.1f %7.2f\n", name.c_str(), count, cores,
              sum * 8 / 1e6 / took.count(),
              *std::min_element(got.begin(), got.end()) / took.count() / kRate);
  std::fflush(stdout);
  for (const pollfd& each : clients) {
    close(each.fd);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const struct {
    const char* name;
    void (*run)();
  } servers[] = {{"HTTP, ours", RunOurs},
                 {"HTTP, libmicrohttpd", RunMicrohttpd},
                 {"broadcast, ours", RunBroadcast},
                 {"broadcast, plain loop", RunPlainLoop}};
  if (argc == 3 && std::string(argv[1]) == "--serve") {
    servers[std::atoi(argv[2])].run();
    return 0;
  }
  const int clients = argc > 1 ? std::atoi(argv[1]) : 200;
  const double seconds = argc > 2 ? std::atof(argv[2]) : 10;
  std::printf("%-24s %7s %9s %11s %7s\n", "server", "clients", "cores", "Mbit/s", "worst");
  for (std::size_t i = 0; i < std::size(servers); ++i) {
    bench::ChildProcess server({"--serve", std::to_string(i)});
    const int port = std::atoi(server.ReadLine().c_str());
    Measure(servers[i].name, server.Pid(), port, clients, seconds);
  }
  const bench::Nginx nginx(static_cast<std::size_t>(kRate * (seconds + 10)),
                           "limit_rate " + std::to_string(static_cast<int>(kRate)) + ";");
  if (nginx.Pid() != 0) {
    Measure("HTTP, nginx, a file", nginx.Pid(), bench::Nginx::kPort, clients, seconds);
  }
  return 0;
}
