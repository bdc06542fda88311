// `orvanta record --config` as it is installed: its sites from a file, with a page, limits that it
// keeps and hooks, and asked for its figures.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "bench/support/child_process.h"
#include "bench/support/receivers.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kScrapes{5};  // Prometheus asks every fifteen

class ServiceReceiver final : public Receiver {
 public:
  explicit ServiceReceiver(const ReceiveJob& job) : job_(job) {}
  ~ServiceReceiver() override {
    ended_ = true;
    if (scrapes_.joinable()) {
      scrapes_.join();
    }
    if (service_) {
      kill(service_->Pid(), SIGTERM);
    }
  }

  bool Open() override {
    const std::string config = job_.recordTo + "/recorder.toml";
    std::ofstream file(config);
    file << "[[disks]]\npath = \"data\"\nlimit = \"1 TB\"\nfree = \"1 GB\"\n"
            "[log]\nlevel = \"error\"\n[retention]\ndays = 30\n[page]\nport = 0\n"
            "[[hooks]]\ncommand = [\"/bin/true\"]\n";
    for (int i = 1; i <= job_.streams; ++i) {
      file << "[[sites]]\nnumber = " << i << "\nurl = \"rtsp://127.0.0.1:" << job_.port
           << "/clip\"\ntransport = \"" << (job_.tcp ? "tcp" : "udp") << "\"\n";
    }
    file.close();
    service_ = std::make_unique<ChildProcess>(
        ORVANTA_BINARY, std::vector<std::string>{"record", "--config", config});
    scrapes_ = std::thread([this] {
      for (auto next = std::chrono::steady_clock::now() + kScrapes; !ended_;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (std::chrono::steady_clock::now() >= next) {
          Ask("metrics");
          next += kScrapes;
        }
      }
    });
    return true;
  }

  ReceiveTotals Totals() override {
    ReceiveTotals totals;
    const auto status = nlohmann::json::parse(Ask("status"), nullptr, false);
    if (!status.is_object()) {
      return totals;
    }
    totals.fewestFrames = ~std::uint64_t{0};
    for (const auto& site : status.at("sites")) {
      const auto frames = site.at("recorded_frames").get<std::uint64_t>();
      totals.frames += frames;
      totals.fewestFrames = std::min(totals.fewestFrames, frames);
      totals.bytes += site.at("recorded_bytes").get<std::uint64_t>();
      totals.lostPackets += site.at("lost_packets").get<std::uint64_t>();
      totals.delivering += frames > 0 ? 1 : 0;
    }
    return totals;
  }

  pid_t Process() override { return service_->Pid(); }

 private:
  // Empty while it does not answer.
  std::string Ask(const std::string& question) const {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (job_.recordTo + "/data/recorder.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    std::string answer;
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        write(socket, (question + "\n").data(), question.size() + 1) > 0) {
      char bytes[64 * 1024];
      for (ssize_t got; (got = read(socket, bytes, sizeof bytes)) > 0;) {
        answer.append(bytes, static_cast<std::size_t>(got));
      }
    }
    close(socket);
    return answer;
  }

  const ReceiveJob job_;
  std::unique_ptr<ChildProcess> service_;
  std::atomic<bool> ended_{false};
  std::thread scrapes_;
};

}  // namespace

std::unique_ptr<Receiver> MakeServiceReceiver(const ReceiveJob& job) {
  return std::make_unique<ServiceReceiver>(job);
}

}  // namespace bench
