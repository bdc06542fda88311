#include "bench/support/receivers.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "cms/streaming/rtsp_client.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kWarmUp{2};
constexpr std::chrono::seconds kOpenLimit{20};

class OwnReceiver final : public Receiver {
 public:
  explicit OwnReceiver(const ReceiveJob& job) : job_(job) {}
  ~OwnReceiver() override {
    for (const auto& client : clients_) {
      client->StopPlay();
      client->CloseStream();
    }
  }

  bool Open() override {
    if (!job_.recordTo.empty()) {
      std::filesystem::create_directories(job_.recordTo + "/work");
      std::filesystem::current_path(job_.recordTo + "/work");  // the databases lie beside it
    }
    for (int i = 0; i < job_.streams; ++i) {
      cms::stRTSPClientConfig config;
      config.path = "rtsp://127.0.0.1:" + std::to_string(job_.port) + "/clip";
      config.transport = job_.tcp ? cms::kRtspTransportInterleaved : cms::kRtspTransportUdp;
      config.ignoreDelimiters = true;
      config.siteNumber = i;
      auto client = std::make_unique<CMSRTSPClient>();
      client->SetConfig(&config);
      client->AllocChannelData(1);
      client->SetMustDecode(0);
      if (!job_.recordTo.empty() && !Record(*client, i)) {
        std::fprintf(stderr, "nothing can be recorded into %s\n", job_.recordTo.c_str());
        return false;
      }
      if (client->OpenStream() == 0 || client->Play() == 0) {
        std::fprintf(stderr, "%s\n", client->GetConnectionStatus().detail.c_str());
        return false;
      }
      clients_.push_back(std::move(client));
    }
    return true;
  }

  ReceiveTotals Totals() override {
    ReceiveTotals totals;
    totals.fewestFrames = ~std::uint64_t{0};
    for (const auto& client : clients_) {
      cms::CMSFrameData data;
      client->GetFrameData(&data, sizeof data);
      const std::uint64_t frames =
          job_.recordTo.empty() ? data.videoFrames : client->GetRecordingStatus().frames;
      totals.frames += frames;
      totals.fewestFrames = std::min(totals.fewestFrames, frames);
      totals.bytes += data.bytes;
      totals.lostPackets += data.lostPackets;
      totals.delivering += data.videoFrames > 0 ? 1 : 0;
    }
    return totals;
  }

 private:
  static bool Record(CMSRTSPClient& client, int number) {
    stRecordParam param;
    const std::wstring path = L"..\\recordings\\Rec_Site" + std::to_wstring(number) + L"_";
    path.copy(param.path, std::size(param.path) - 1);
    client.SetRecordParam(param);
    return client.StartRecord(0, cms::kRecordInstant) != 0;
  }

  ReceiveJob job_;
  std::vector<std::unique_ptr<CMSRTSPClient>> clients_;
};

struct Usage {
  double user = 0;  // ms
  double system = 0;
  long waits = 0;  // times that a thread gave the processor up
};

// Of another process all of it counts as user time.
Usage ProcessUsage(pid_t process) {
  if (clockid_t clock{}; process != 0 && clock_getcpuclockid(process, &clock) == 0) {
    timespec used{};
    clock_gettime(clock, &used);
    return {static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) * 1e-6, 0,
            0};
  }
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto milliseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) * 1e-3;
  };
  return {milliseconds(used.ru_utime), milliseconds(used.ru_stime), used.ru_nvcsw};
}

std::string ProcFile(pid_t process, const char* name) {
  return "/proc/" + (process != 0 ? std::to_string(process) : "self") + "/" + name;
}

int ThreadCount(pid_t process) {
  const std::filesystem::directory_iterator tasks(ProcFile(process, "task"));
  return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

double ResidentMegabytes(pid_t process) {
  std::ifstream file(ProcFile(process, "statm"));
  double size = 0;
  double resident = 0;
  file >> size >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

}  // namespace

std::unique_ptr<Receiver> MakeOwnReceiver(const ReceiveJob& job) {
  return std::make_unique<OwnReceiver>(job);
}

int RunReceiver(const ReceiveJob& job) {
  const auto receiver = job.receiver == "ours"        ? MakeOwnReceiver(job)
                        : job.receiver == "service"   ? MakeServiceReceiver(job)
                        : job.receiver == "gstreamer" ? MakeGStreamerReceiver(job)
                                                      : MakeBareReceiver(job);
  if (!receiver->Open()) {
    return 1;
  }
  using Clock = std::chrono::steady_clock;
  const auto limit = Clock::now() + kOpenLimit;
  while (receiver->Totals().delivering < job.streams && Clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(kWarmUp);

  const pid_t process = receiver->Process();
  const Usage usageBefore = ProcessUsage(process);
  const ReceiveTotals before = receiver->Totals();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(job.seconds));
  const Usage usage = ProcessUsage(process);
  const ReceiveTotals after = receiver->Totals();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  const double streamSeconds = seconds * job.streams;
  std::printf(
      "user=%f system=%f waits=%f delivering=%d frames=%f fewest=%f kbps=%f lost=%lu threads=%d "
      "rss=%f seconds=%f\n",
      (usage.user - usageBefore.user) / streamSeconds,
      (usage.system - usageBefore.system) / streamSeconds,
      static_cast<double>(usage.waits - usageBefore.waits) / seconds, after.delivering,
      static_cast<double>(after.frames - before.frames) / streamSeconds,
      static_cast<double>(after.fewestFrames - before.fewestFrames) / seconds,
      static_cast<double>(after.bytes - before.bytes) * 8 / 1000 / streamSeconds,
      static_cast<unsigned long>(after.lostPackets), ThreadCount(process),
      ResidentMegabytes(process), seconds);
  std::fflush(stdout);
  return 0;
}

}  // namespace bench
