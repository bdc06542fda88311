// From OpenStream to the first decoded picture, against the test camera (`orvanta camera`, 640x360
// at 25 fps) in a process of its own. The goal is one GOP plus 300 ms: reception begins with the
// first key frame that starts after the first whole frame, so a GOP is the longest wait, and the
// rest is negotiating and decoding.
//
//   running    another client watches the camera all the time; openings fall anywhere in a GOP
//   starting   the opening starts the camera's encoder, whose first picture is a key frame
//
// The I/O threads are ended before each opening, so that every one pays for making them. Twenty
// openings each; times in milliseconds. over: how many took longer than the goal.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/child_process.h"
#include "cms/exports/net_exports.h"
#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_camera.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kOpenings = 20;
constexpr int kFps = 25;
constexpr double kAllowance = 300;  // ms beyond the GOP
constexpr std::chrono::seconds kLimit{20};

double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

std::unique_ptr<CMSRTSPClient> MakeClient(const std::string& url, bool tcp, bool decode) {
  stRTSPClientConfig config;
  config.path = url;
  config.transport = tcp ? kRtspTransportInterleaved : kRtspTransportUdp;
  config.ignoreDelimiters = true;
  auto client = std::make_unique<CMSRTSPClient>();
  client->SetConfig(&config);
  client->SetThreadedDecode(true);
  client->AllocChannelData(1);
  client->EnableDecode(0, 0);
  client->SetMustDecode(decode ? 1 : 0);
  return client;
}

bool HasPicture(CMSRTSPClient& client) {
  tagSIZE size{};
  const bool has = client.lockDecodedImage(0, &size) != nullptr;
  client.unlockDecodedImage(0);
  return has;
}

struct Opening {
  double open = 0;     // until the answer to PLAY
  double picture = 0;  // until the picture; 0: none came
};

Opening OpenOnce(const std::string& url, bool tcp) {
  const auto client = MakeClient(url, tcp, true);
  Opening opening;
  const auto start = Clock::now();
  if (client->OpenStream() != 0 && client->Play() != 0) {
    opening.open = Milliseconds(Clock::now() - start);
    bool has = false;
    while (!(has = HasPicture(*client)) && Clock::now() - start < kLimit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    opening.picture = has ? Milliseconds(Clock::now() - start) : 0;
  }
  client->StopPlay();
  client->CloseStream();
  return opening;
}

// Another client, in a process of its own since this one's I/O threads end again and again.
int Watch(const std::string& url) {
  const auto client = MakeClient(url, true, false);
  const bool plays = client->OpenStream() != 0 && client->Play() != 0;
  std::printf("%d\n", plays ? 1 : 0);
  std::fflush(stdout);
  std::getchar();
  client->StopPlay();
  client->CloseStream();
  return 0;
}

double Median(std::vector<double>& values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void BM_Open(benchmark::State& state, bool running, bool tcp, int gop) {
  const test::RtspCamera camera({"--gop", std::to_string(gop), "--fps", std::to_string(kFps)});
  const double gop_time = 1000.0 * gop / kFps;
  for (auto _ : state) {
    std::unique_ptr<bench::ChildProcess> watcher;
    if (running) {
      watcher = std::make_unique<bench::ChildProcess>(
          std::vector<std::string>{"--role=watch", camera.Url()});
      if (watcher->ReadLine() != "1") {
        state.SkipWithError("the watching client failed");
        return;
      }
    }
    std::mt19937 random(7);
    std::vector<double> opens;
    std::vector<double> pictures;
    double total = 0;
    for (int i = 0; i < kOpenings; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1000));
      StopEachClientNBManager();
      const Opening opening = OpenOnce(camera.Url(), tcp);
      if (opening.picture == 0) {
        state.SkipWithError("an opening brought no picture");
        return;
      }
      opens.push_back(opening.open);
      pictures.push_back(opening.picture);
      total += opening.picture;
    }
    state.SetIterationTime(total / 1000 / kOpenings);
    state.counters["over"] =
        static_cast<double>(std::count_if(pictures.begin(), pictures.end(), [&](double picture) {
          return picture > gop_time + kAllowance;
        }));
    state.counters["open_median"] = Median(opens);
    state.counters["open_worst"] = opens.back();
    state.counters["picture_median"] = Median(pictures);
    state.counters["picture_worst"] = pictures.back();
    state.counters["goal"] = gop_time + kAllowance;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--role=watch") {
    return Watch(argv[2]);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  for (const bool running : {true, false}) {
    for (const bool tcp : {false, true}) {
      for (const int gop : {25, 50}) {
        const std::string name = std::string(running ? "running/" : "starting/") +
                                 (tcp ? "tcp" : "udp") + "/gop:" + std::to_string(gop);
        benchmark::RegisterBenchmark(
            name.c_str(), [=](benchmark::State& state) { BM_Open(state, running, tcp, gop); })
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
      }
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
