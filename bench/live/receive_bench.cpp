// Many streams of 1080p H.264 at 4 Mbit/s received in one process without decoding: ours beside as
// many `rtspsrc ! rtph264depay ! fakesink` branches and a bare receive loop, over UDP and over TCP.
//
// The server and each receiver are processes of their own (this program in another role), so that
// what is measured is a receiver's alone: user and system time of its process in milliseconds for
// each second of each stream, two seconds after all streams run, for --seconds=N (10; even, so that
// whole GOPs of two seconds are counted and every receiver gets the same bytes).
//
//   frames     delivered by a stream a second (the camera sends 25); fewest: by the slowest one
//   lost       packets missing since the opening; a run with any says so
//   waits      times a second that one of the process's threads gave the processor up
//
// Run with --benchmark_repetitions=3; the table at the end compares medians.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/support/child_process.h"
#include "bench/support/receivers.h"
#include "bench/support/stream_server.h"

namespace {

constexpr int kGop = 50;
constexpr int kFrames = 100;
constexpr int kFps = 25;

int g_seconds = 10;
std::map<std::string, std::vector<double>> g_costs;  // by "transport streams receiver"

int Serve() {
  test::ClipSpec spec;
  spec.width = 1920;
  spec.height = 1080;
  spec.frames = kFrames;
  spec.gop = kGop;
  spec.profile = test::ClipProfile::kHigh;
  spec.fps = kFps;
  spec.bitrate = 4'000'000;
  spec.noise = true;
  const auto frames = test::EncodeClip(spec);
  std::size_t bytes = 0;
  for (const auto& frame : frames) {
    bytes += frame.data.size();
  }
  const bench::PacketizedClip clip(frames);
  std::printf("%.0f kbit/s in %.1f packets a frame, key frames of %zu packets\n",
              static_cast<double>(bytes) * 8 / 1000 * kFps / kFrames,
              static_cast<double>(clip.PacketCount()) / kFrames, clip.Frame(kGop).size());
  return bench::ServeClip(clip);
}

// The server, made at the first use.
struct Server {
  bench::ChildProcess process{{"--role=serve"}};
  std::string description = process.ReadLine();
  std::string port = process.ReadLine();
};

Server& TheServer() {
  static Server server;
  return server;
}

using Figures = std::map<std::string, double>;

Figures Measure(const std::string& receiver, int streams, bool tcp) {
  bench::ChildProcess child({"--role=" + receiver, std::to_string(streams), tcp ? "tcp" : "udp",
                             TheServer().port, std::to_string(g_seconds)});
  std::istringstream line(child.ReadLine());
  Figures figures;
  for (std::string word; line >> word;) {
    const std::size_t equals = word.find('=');
    figures[word.substr(0, equals)] = std::stod(word.substr(equals + 1));
  }
  return figures;
}

void BM_Receive(benchmark::State& state, const std::string& receiver, int streams, bool tcp) {
  for (auto _ : state) {
    Figures figures = Measure(receiver, streams, tcp);
    if (figures.empty()) {
      state.SkipWithError("the receiver failed");
      return;
    }
    const double cost = figures["user"] + figures["system"];
    state.SetIterationTime(cost / 1000);
    state.counters["ms_per_stream_s"] = cost;
    for (const char* const name :
         {"user", "system", "waits", "frames", "fewest", "kbps", "lost", "threads", "rss"}) {
      state.counters[name] = figures[name];
    }
    std::string label;
    if (figures["lost"] > 0) {
      label = "LOST PACKETS ";
    }
    if (figures["delivering"] < streams) {
      label += "SILENT STREAMS";
    }
    state.SetLabel(label);
    g_costs[std::string(tcp ? "tcp " : "udp ") + std::to_string(streams) + " " + receiver]
        .push_back(cost);
  }
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

void PrintComparison() {
  for (const std::string transport : {"udp", "tcp"}) {
    const auto cost = [&](const std::string& receiver) {
      return Median(g_costs[transport + " 32 " + receiver]);
    };
    if (cost("ours") > 0 && cost("gstreamer") > 0) {
      std::printf(
          "%s, 32 streams, ms per stream-second: ours %.2f, GStreamer %.2f (ours is %.2f of it), "
          "bare loop %.2f, bare loop that writes %.2f\n",
          transport.c_str(), cost("ours"), cost("gstreamer"), cost("ours") / cost("gstreamer"),
          cost("bare"), cost("write"));
    }
  }
}

int RunRole(const std::string& role, char** arguments, int count) {
  if (role == "serve") {
    return Serve();
  }
  if (count < 4) {
    return 2;
  }
  bench::ReceiveJob job;
  job.receiver = role;
  job.streams = std::atoi(arguments[0]);
  job.tcp = std::string(arguments[1]) == "tcp";
  job.port = std::atoi(arguments[2]);
  job.seconds = std::atoi(arguments[3]);
  return bench::RunReceiver(job);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string first = argc > 1 ? argv[1] : "";
  if (first.starts_with("--role=")) {
    return RunRole(first.substr(7), argv + 2, argc - 2);
  }
  benchmark::Initialize(&argc, argv);
  if (argc > 1 && std::sscanf(argv[1], "--seconds=%d", &g_seconds) == 1) {
    --argc;
    g_seconds += g_seconds % 2;
  }
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  for (const bool tcp : {false, true}) {
    for (const auto& [who, count] : std::vector<std::pair<std::string, int>>{
             {"ours", 32}, {"gstreamer", 32}, {"bare", 32}, {"write", 32}, {"ours", 128}}) {
      const std::string name =
          std::string(tcp ? "tcp/" : "udp/") + std::to_string(count) + "/" + who;
      benchmark::RegisterBenchmark(name.c_str(),
                                   [=, receiver = who, streams = count](benchmark::State& state) {
                                     BM_Receive(state, receiver, streams, tcp);
                                   })
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::AddCustomContext("clip", TheServer().description);
  benchmark::RunSpecifiedBenchmarks();
  PrintComparison();
  return 0;
}
