// What 64 registered but silent clients cost: 32 TCP and 32 UDP in one group, with 32 RTCP steps.
// Prints the process's share of one core over five seconds; below 1 % is the aim.
#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/net/client_group.h"
#include "cms/net/rtcp_step.h"
#include "cms/net/tcp_client.h"
#include "cms/net/udp_client.h"

namespace {

constexpr int kGroup = 1;
constexpr int kOfEachKind = 32;
constexpr std::chrono::seconds kDuration{5};

class SilentStep final : public cms::RTCPStep {
 public:
  int RTCPProcessNB() override { return 0; }
};

double ProcessSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void Require(bool held, const char* what) {
  if (!held) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  }
}

}  // namespace

int main() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  Require(bind(listener, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              listen(listener, kOfEachKind) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "listening");

  EachClientGroupTable& table = EachClientGroupTable::Instance();
  std::vector<std::unique_ptr<TCPClientBase>> tcp;
  std::vector<std::unique_ptr<UDPClientBase>> udp;
  std::vector<SilentStep> steps(kOfEachKind);
  for (SilentStep& step : steps) {
    tcp.push_back(std::make_unique<TCPClientBase>());
    Require(tcp.back()->OnStartTCPClient(INADDR_LOOPBACK, ntohs(address.sin_port), kGroup) != 0,
            "connecting");
    Require(accept(listener, nullptr, nullptr) >= 0, "accepting");
    udp.push_back(std::make_unique<UDPClientBase>());
    Require(udp.back()->OnStartUDPClient() != 0 && table.Register(udp.back().get(), kGroup) != 0,
            "binding");
    Require(table.Register(&step, kGroup) != 0, "registering");
  }

  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const double before = ProcessSeconds();
  std::this_thread::sleep_for(kDuration);
  const double percent = (ProcessSeconds() - before) * 100 / static_cast<double>(kDuration.count());
  std::printf("silent clients: %d TCP, %d UDP, %d RTCP steps: %.3f %% of one core over %lld s\n",
              kOfEachKind, kOfEachKind, kOfEachKind, percent,
              static_cast<long long>(kDuration.count()));
  for (SilentStep& step : steps) {
    table.Unregister(&step);
  }
  tcp.clear();
  udp.clear();
  StopEachClientNBManager();
  return percent < 1.0 ? 0 : 1;
}
