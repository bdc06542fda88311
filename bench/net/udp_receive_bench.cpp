// Processor time of receiving cameras' datagrams, per datagram: a UDP client's callback mode beside
// the least that a program of one's own would do.
//
// A sender process plays 32 cameras of 4 Mbit/s at 30 pictures a second, 12 datagrams of 1,400
// bytes a picture, spread evenly over the picture interval. What receives them is this process
// alone, so its whole processor time is the receiver's.
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/net/client_group.h"
#include "cms/net/udp_client.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCameras = 32;
constexpr int kDatagram = 1400;
constexpr int kDatagramsPerPicture = 12;
constexpr std::chrono::microseconds kPictureInterval{33'333};
constexpr std::chrono::seconds kDuration{5};
constexpr int kSocketBuffer = 1 << 20;

using Ports = std::vector<std::uint16_t>;

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// Each camera's picture leaves at its own time within the interval.
[[noreturn]] void Send(const Ports& ports) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  const std::vector<char> datagram(kDatagram, 'x');
  const auto start = Clock::now();
  for (std::int64_t turn = 0;; ++turn) {
    std::this_thread::sleep_until(start + kPictureInterval * turn / kCameras);
    const sockaddr_in to = Loopback(ports[static_cast<std::size_t>(turn % kCameras)]);
    for (int i = 0; i < kDatagramsPerPicture; ++i) {
      sendto(descriptor, datagram.data(), datagram.size(), 0,
             reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
  }
}

double ProcessSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::atomic<std::int64_t> received{0};

// Runs the sender against the ports for a while, and reports what receiving cost meanwhile.
void Measure(const char* name, const Ports& ports) {
  received = 0;
  const pid_t sender = fork();
  if (sender == 0) {
    Send(ports);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const double before = ProcessSeconds();
  const std::int64_t start = received;
  std::this_thread::sleep_for(kDuration);
  const double used = ProcessSeconds() - before;
  const std::int64_t count = received - start;
  kill(sender, SIGKILL);
  waitpid(sender, nullptr, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::printf("%-44s %9lld datagrams %8.0f ns each %6.2f %% of one core\n", name,
              static_cast<long long>(count), used * 1e9 / static_cast<double>(count),
              used * 100 / static_cast<double>(kDuration.count()));
}

void MeasureClients() {
  std::vector<std::unique_ptr<UDPClientBase>> clients;
  Ports ports;
  for (int i = 0; i < kCameras; ++i) {
    _UDPCLIENT_CONFIG config;
    config.recvContext = &received;
    config.recvCallback = [](void*, char*, int) { ++received; };
    clients.push_back(std::make_unique<UDPClientBase>());
    clients.back()->SetConfig(config);
    if (clients.back()->OnStartUDPClient() == 0 ||
        EachClientGroupTable::Instance().Register(clients.back().get(), 1) == 0) {
      std::exit(1);
    }
    clients.back()->SetRecvSocketBuffer(kSocketBuffer);
    ports.push_back(clients.back()->BoundPort());
  }
  Measure("UDP clients, callback mode", ports);
  clients.clear();
  StopEachClientNBManager();
}

// Waits for any socket, then empties the ready ones; with a rest, at most once in that time.
void MeasureBareLoop(const char* name, std::chrono::microseconds rest) {
  std::vector<pollfd> sockets;
  Ports ports;
  for (int i = 0; i < kCameras; ++i) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      std::exit(1);
    }
    sockets.push_back({descriptor, POLLIN, 0});
    ports.push_back(ntohs(address.sin_port));
  }
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    static char buffer[65536];
    while (!stop) {
      poll(sockets.data(), sockets.size(), 100);
      for (const pollfd& item : sockets) {
        while (item.revents != 0 && recv(item.fd, buffer, sizeof buffer, 0) > 0) {
          ++received;
        }
      }
      if (rest.count() > 0) {
        std::this_thread::sleep_for(rest);
      }
    }
  });
  Measure(name, ports);
  stop = true;
  receiver.join();
  for (const pollfd& item : sockets) {
    close(item.fd);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view only = argc > 1 ? argv[1] : "";
  for (int round = 0; round < 2; ++round) {
    if (only.empty() || only == "clients") {
      MeasureClients();
    }
    if (only.empty() || only == "bare") {
      MeasureBareLoop("bare poll and recv loop", std::chrono::microseconds(0));
      MeasureBareLoop("bare poll and recv loop, resting 2 ms", std::chrono::microseconds(2000));
    }
  }
}
