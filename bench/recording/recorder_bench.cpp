// What the recorder and its write queue put on the disk from memory, beside what
// "dd bs=512k conv=fdatasync" puts there, in turns on the same disk; and what a frame costs the
// thread that receives it. RECORDER_BENCH_DIR is the folder to write in (default: the working
// folder).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cms/live/media/frame_header.h"
#include "cms/recording/drv_recorder.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBytes = 1u << 30;
constexpr int kGop = 25;
constexpr std::size_t kFrame = 20'000;  // 1080p at 4 Mbit/s and 25 frames a second

class Folder {
 public:
  Folder() : before_(fs::current_path()) {
    const char* const where = std::getenv("RECORDER_BENCH_DIR");
    std::string path = std::string(where != nullptr ? where : ".") + "/recorder_bench_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      std::perror(path.c_str());
      std::exit(1);
    }
    path_ = fs::absolute(path);
    fs::create_directories(path_ / "work");
    fs::current_path(path_ / "work");
  }
  ~Folder() {
    fs::current_path(before_);
    fs::remove_all(path_);
  }
  const fs::path& Path() const { return path_; }

 private:
  fs::path before_;
  fs::path path_;
};

class Camera {
 public:
  explicit Camera(int site) {
    stRecordParam param;
    const std::wstring path = L"..\\rec\\Rec_Site" + std::to_wstring(site) + L"_";
    path.copy(param.path, 259);
    param.fileSizeMiB = 256;
    recorder_.SetRecParam(param);
    recorder_.StartScheNormalRecord(0);
  }
  void Record() {
    cms::VideoFrameInfo info;
    info.payloadSize = kFrame;
    info.hostSeconds = cms::WallSeconds();
    info.frameType = sequence_ % kGop == 0 ? cms::kKeyFrame : cms::kOtherFrame;
    info.videoType = cms::CMS_VIDEO_H264;
    info.sequence = ++sequence_;
    std::array<std::uint8_t, cms::kVideoHeaderRoom> area;
    cms::BuildVideoFrameHeader(area, info);
    recorder_.RecordVideoFrame(area.data(), static_cast<int>(area.size()), payload_.data(), kFrame,
                               0);
  }
  FX::FX_DRVRecorder& Recorder() { return recorder_; }

 private:
  std::vector<std::uint8_t> payload_ = std::vector<std::uint8_t>(kFrame, 'x');
  std::uint32_t sequence_ = 0;
  FX::FX_DRVRecorder recorder_;
};

double Seconds(const std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void SyncFiles(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const int file = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    fdatasync(file);
    close(file);
  }
}

double Dd(const Folder& folder) {
  const std::string file = (folder.Path() / "dd").string();
  const std::string command = "dd if=/dev/zero of=" + file +
                              " bs=512k count=" + std::to_string(kBytes >> 19) +
                              " conv=fdatasync 2>/dev/null";
  const auto begin = std::chrono::steady_clock::now();
  if (std::system(command.c_str()) != 0) {
    std::exit(1);
  }
  const double seconds = Seconds(begin);
  fs::remove(file);
  return seconds;
}

double Recorders(const Folder& folder, int sites, bool& lost) {
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<Camera>> cameras;
  for (int site = 1; site <= sites; ++site) {
    cameras.push_back(std::make_unique<Camera>(site));
  }
  for (std::uint64_t bytes = 0; bytes < kBytes; bytes += static_cast<unsigned>(sites) * kFrame) {
    for (auto& camera : cameras) {
      camera->Record();
    }
  }
  for (auto& camera : cameras) {
    camera->Recorder().StopRecordAll();
  }
  for (auto& camera : cameras) {
    camera->Recorder().WaitRecorded(-1);
  }
  SyncFiles(folder.Path() / "rec");
  const double seconds = Seconds(begin);
  for (auto& camera : cameras) {
    const auto status = camera->Recorder().GetRecordingStatus();
    lost = lost || status.failures != 0 || status.waitingFrames + status.failedFrames != 0;
  }
  cameras.clear();
  fs::remove_all(folder.Path() / "rec");
  return seconds;
}

// Both in turns, so that the disk's moods meet both.
void AgainstDd(benchmark::State& state) {
  const Folder folder;
  double dd = 0;
  double recorders = 0;
  bool lost = false;
  for (auto _ : state) {
    dd += Dd(folder);
    const double seconds = Recorders(folder, static_cast<int>(state.range(0)), lost);
    recorders += seconds;
    state.SetIterationTime(seconds);
  }
  if (lost) {
    state.SkipWithError("frames were lost");
  }
  const double mebibytes = static_cast<double>(state.iterations()) * (kBytes >> 20);
  state.counters["dd_MiB_s"] = mebibytes / dd;
  state.counters["ours_MiB_s"] = mebibytes / recorders;
  state.counters["ours_of_dd"] = dd / recorders;
}
BENCHMARK(AgainstDd)->Arg(1)->Arg(32)->UseManualTime()->Iterations(5)->Unit(benchmark::kSecond);

// The processor time of all threads for a second of one stream, 32 of them at 25 frames a second,
// the clock's calls included, without waiting for the disk.
void StreamSecond(benchmark::State& state) {
  const Folder folder;
  std::vector<std::unique_ptr<Camera>> cameras;
  for (int site = 1; site <= 32; ++site) {
    cameras.push_back(std::make_unique<Camera>(site));
  }
  const auto processor = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
  };
  const double begin = processor();
  for (auto _ : state) {
    for (int frame = 0; frame < 25; ++frame) {
      for (auto& camera : cameras) {
        camera->Record();
      }
    }
    for (auto& camera : cameras) {
      camera->Recorder().Flush(0);
    }
    for (auto& camera : cameras) {
      camera->Recorder().WaitRecorded(-1);
    }
  }
  state.counters["ms_per_stream_second"] =
      (processor() - begin) * 1000 / static_cast<double>(state.iterations()) / 32;
  cameras.clear();
}
BENCHMARK(StreamSecond)->Iterations(60)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
