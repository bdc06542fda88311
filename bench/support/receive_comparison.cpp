#include "bench/support/receive_comparison.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "bench/support/child_process.h"
#include "bench/support/receivers.h"
#include "bench/support/stream_server.h"

namespace bench {
namespace {

constexpr int kGop = 50;
constexpr int kFrames = 100;
constexpr int kFps = 25;

int g_seconds = 10;
bool g_records = false;
std::map<std::string, std::vector<double>> g_costs;  // by "transport streams receiver"

int Serve(int bitrate) {
  test::ClipSpec spec;
  spec.width = 1920;
  spec.height = 1080;
  spec.frames = kFrames;
  spec.gop = kGop;
  spec.profile = test::ClipProfile::kHigh;
  spec.fps = kFps;
  spec.bitrate = bitrate;
  spec.noise = true;
  const auto frames = test::EncodeClip(spec);
  std::size_t bytes = 0;
  for (const auto& frame : frames) {
    bytes += frame.data.size();
  }
  const PacketizedClip clip(frames);
  std::printf("%.0f kbit/s in %.1f packets a frame, key frames of %zu packets\n",
              static_cast<double>(bytes) * 8 / 1000 * kFps / kFrames,
              static_cast<double>(clip.PacketCount()) / kFrames, clip.Frame(kGop).size());
  return ServeClip(clip);
}

// The server, made at the first use.
struct Server {
  ChildProcess process{{"--role=serve"}};
  std::string description = process.ReadLine();
  std::string port = process.ReadLine();
};

Server& TheServer() {
  static Server server;
  return server;
}

using Figures = std::map<std::string, double>;

// Where a receiver writes; gone with all that is in it.
class Folder {
 public:
  Folder() {
    std::string path = std::filesystem::absolute("receive_bench_XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) {
      std::perror(path.c_str());
      std::exit(1);
    }
    path_ = path;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

Figures Measure(const std::string& receiver, int streams, bool tcp) {
  const std::unique_ptr<Folder> folder(g_records ? new Folder : nullptr);
  ChildProcess child({"--role=" + receiver, std::to_string(streams), tcp ? "tcp" : "udp",
                      TheServer().port, std::to_string(g_seconds),
                      folder ? folder->Path() : std::string()});
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

void PrintComparison(const ReceiverComparison& comparison) {
  std::set<int> counts;
  for (const auto& each : comparison.cases) {
    counts.insert(each.streams);
  }
  for (const std::string transport : {"udp", "tcp"}) {
    for (const int streams : counts) {
      const auto cost = [&](const std::string& receiver) {
        return Median(g_costs[transport + " " + std::to_string(streams) + " " + receiver]);
      };
      if (cost("ours") > 0 && cost("gstreamer") > 0) {
        std::printf(
            "%s, %d streams, ms per stream-second: ours %.2f, GStreamer %.2f (ours is %.2f "
            "of it)",
            transport.c_str(), streams, cost("ours"), cost("gstreamer"),
            cost("ours") / cost("gstreamer"));
        if (cost("bare") > 0) {
          std::printf(", bare loop %.2f, bare loop that writes %.2f", cost("bare"), cost("write"));
        }
        std::printf("\n");
      }
    }
  }
}

int RunRole(const std::string& role, const ReceiverComparison& comparison, char** arguments,
            int count) {
  if (role == "serve") {
    return Serve(comparison.bitrate);
  }
  if (count < 5) {
    return 2;
  }
  ReceiveJob job;
  job.receiver = role;
  job.streams = std::atoi(arguments[0]);
  job.tcp = std::string(arguments[1]) == "tcp";
  job.port = std::atoi(arguments[2]);
  job.seconds = std::atoi(arguments[3]);
  job.recordTo = arguments[4];
  return RunReceiver(job);
}

}  // namespace

int CompareReceivers(int argc, char** argv, const ReceiverComparison& comparison) {
  const std::string first = argc > 1 ? argv[1] : "";
  if (first.starts_with("--role=")) {
    return RunRole(first.substr(7), comparison, argv + 2, argc - 2);
  }
  benchmark::Initialize(&argc, argv);
  if (argc > 1 && std::sscanf(argv[1], "--seconds=%d", &g_seconds) == 1) {
    --argc;
    g_seconds += g_seconds % 2;
  }
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  g_records = comparison.records;
  for (const bool tcp : {false, true}) {
    for (const auto& [who, count] : comparison.cases) {
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
  PrintComparison(comparison);
  return 0;
}

}  // namespace bench
