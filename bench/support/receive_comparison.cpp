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
#include <utility>

#include "bench/support/child_process.h"
#include "bench/support/receivers.h"
#include "bench/support/stream_server.h"

namespace bench {
namespace {

constexpr int kGop = 50;
constexpr int kFrames = 100;
constexpr int kFps = 25;

constexpr char kH264Name[] = "h264";  // of a server's and a receiver's role, and in the tables
constexpr char kH265Name[] = "h265";

int gSeconds = 10;
bool gRecords = false;
std::map<std::string, std::vector<double>> gCosts;  // by "transport streams codec receiver"

int Serve(int bitrate, test::ClipCodec codec) {
  test::ClipSpec spec;
  spec.codec = codec;
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
  const PacketizedClip clip(frames, codec);
  std::printf("%s: %.0f kbit/s in %.1f packets a frame, key frames of %zu packets\n",
              codec == test::ClipCodec::kH265 ? kH265Name : kH264Name,
              static_cast<double>(bytes) * 8 / 1000 * kFps / kFrames,
              static_cast<double>(clip.PacketCount()) / kFrames, clip.Frame(kGop).size());
  return ServeClip(clip);
}

// The server, made at the first use.
struct Server {
  explicit Server(const char* codec) : process({"--role=serve", codec}) {}
  ChildProcess process;
  std::string description = process.ReadLine();
  std::string port = process.ReadLine();
};

Server& TheServer(bool h265) {
  if (h265) {
    static Server server(kH265Name);
    return server;
  }
  static Server server(kH264Name);
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

Figures Measure(const ReceiverComparison::Case& what, bool tcp) {
  const std::unique_ptr<Folder> folder(gRecords ? new Folder : nullptr);
  ChildProcess child({"--role=" + what.receiver, std::to_string(what.streams),
                      what.h265 ? kH265Name : kH264Name, tcp ? "tcp" : "udp",
                      TheServer(what.h265).port, std::to_string(gSeconds),
                      folder ? folder->Path() : std::string()});
  std::istringstream line(child.ReadLine());
  Figures figures;
  for (std::string word; line >> word;) {
    const std::size_t equals = word.find('=');
    figures[word.substr(0, equals)] = std::stod(word.substr(equals + 1));
  }
  return figures;
}

std::string CostKey(bool tcp, int streams, bool h265, const std::string& receiver) {
  return std::string(tcp ? "tcp " : "udp ") + std::to_string(streams) + " " +
         (h265 ? kH265Name : kH264Name) + " " + receiver;
}

void BM_Receive(benchmark::State& state, const ReceiverComparison::Case& what, bool tcp) {
  for (auto _ : state) {
    Figures figures = Measure(what, tcp);
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
    if (figures["delivering"] < what.streams) {
      label += "SILENT STREAMS";
    }
    state.SetLabel(label);
    gCosts[CostKey(tcp, what.streams, what.h265, what.receiver)].push_back(cost);
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
  for (const bool tcp : {false, true}) {
    const char* const transport = tcp ? "tcp" : "udp";
    for (const int streams : counts) {
      const auto cost = [&](const std::string& receiver, bool h265 = false) {
        return Median(gCosts[CostKey(tcp, streams, h265, receiver)]);
      };
      if (cost("ours") > 0 && cost("ours", true) > 0) {
        std::printf(
            "%s, %d streams, ms per stream-second: ours H.264 %.2f, H.265 %.2f (%.2f of it)\n",
            transport, streams, cost("ours"), cost("ours", true),
            cost("ours", true) / cost("ours"));
      }
      if (cost("ours") > 0 && cost("gstreamer") > 0) {
        std::printf(
            "%s, %d streams, ms per stream-second: ours %.2f, GStreamer %.2f (ours is %.2f "
            "of it)",
            transport, streams, cost("ours"), cost("gstreamer"), cost("ours") / cost("gstreamer"));
        for (const auto& [receiver, what] :
             {std::pair("service", "the service"), std::pair("bare", "bare loop"),
              std::pair("write", "bare loop that writes")}) {
          if (cost(receiver) > 0) {
            std::printf(", %s %.2f", what, cost(receiver));
          }
        }
        std::printf("\n");
      }
    }
  }
}

int RunRole(const std::string& role, const ReceiverComparison& comparison, char** arguments,
            int count) {
  if (role == "serve" && count > 0) {
    return Serve(comparison.bitrate, arguments[0] == std::string(kH265Name)
                                         ? test::ClipCodec::kH265
                                         : test::ClipCodec::kH264);
  }
  if (count < 6) {
    return 2;
  }
  ReceiveJob job;
  job.receiver = role;
  job.streams = std::atoi(arguments[0]);
  job.h265 = arguments[1] == std::string(kH265Name);
  job.tcp = std::string(arguments[2]) == "tcp";
  job.port = std::atoi(arguments[3]);
  job.seconds = std::atoi(arguments[4]);
  job.recordTo = arguments[5];
  return RunReceiver(job);
}

}  // namespace

int CompareReceivers(int argc, char** argv, const ReceiverComparison& comparison) {
  const std::string first = argc > 1 ? argv[1] : "";
  if (first.starts_with("--role=")) {
    return RunRole(first.substr(7), comparison, argv + 2, argc - 2);
  }
  benchmark::Initialize(&argc, argv);
  if (argc > 1 && std::sscanf(argv[1], "--seconds=%d", &gSeconds) == 1) {
    --argc;
    gSeconds += gSeconds % 2;
  }
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  gRecords = comparison.records;
  for (const bool tcp : {false, true}) {
    for (const auto& each : comparison.cases) {
      const std::string name = std::string(tcp ? "tcp/" : "udp/") + std::to_string(each.streams) +
                               "/" + each.receiver + (each.h265 ? "/h265" : "");
      benchmark::RegisterBenchmark(name.c_str(),
                                   [=](benchmark::State& state) { BM_Receive(state, each, tcp); })
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (const bool h265 : {false, true}) {
    if (std::ranges::any_of(comparison.cases,
                            [&](const auto& each) { return each.h265 == h265; })) {
      benchmark::AddCustomContext(h265 ? "H.265 clip" : "clip", TheServer(h265).description);
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  PrintComparison(comparison);
  return 0;
}

}  // namespace bench
