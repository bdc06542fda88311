// Playing recordings of a 1080p clip at 4 Mbit/s, a key frame every second.
//
// Seek: a target time anywhere in one recording of 4 GiB (ORVANTA_BENCH_GIB: less), until its
// picture is shown, beside what decoding such a group of pictures takes. The recording is in the
// page cache as far as memory goes, and its index is read before.
//
// Sites: four or sixteen recordings for some seconds at speed 1, or -1; processor time of the whole
// process, and of bare decoding and converting of as many pictures: by as many decoders in turn,
// and by one in a row, which stays in the processor's caches as no player of several sites can.
// core_above_bare is the share of one core that reading, the clock and showing cost.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "cms/live/decoder.h"
#include "cms/live/media/frame_header.h"
#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/recording/drv_format.h"
#include "cms/runtime/native_path.h"
#include "tests/support/encoded_clip.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFps = 25;
constexpr int kGop = 25;
constexpr std::int64_t kStart = 1'700'000'000;
constexpr tagSIZE kDisplay{960, 540};

const std::vector<test::EncodedFrame>& Clip() {
  static const std::vector<test::EncodedFrame> clip = [] {
    test::ClipSpec spec;
    spec.width = 1920;
    spec.height = 1080;
    spec.frames = 4 * kGop;
    spec.gop = kGop;
    spec.fps = kFps;
    spec.profile = test::ClipProfile::kHigh;
    spec.bitrate = 4'000'000;
    spec.noise = true;
    auto frames = test::EncodeClip(spec);
    for (auto& frame : frames) {
      frame.data.reserve(frame.data.size() + CMSDecoder::kInputPadding);
    }
    return frames;
  }();
  return clip;
}

struct Folder {
  Folder()
      : path(std::filesystem::temp_directory_path() /
             ("playback_bench_" + std::to_string(getpid()))) {
    std::filesystem::create_directories(path);
  }
  ~Folder() { std::filesystem::remove_all(path); }
  std::filesystem::path path;
};

// Returns how many seconds were recorded.
int Record(const std::filesystem::path& drvPath, std::uint64_t bytes, int mostSeconds) {
  std::ofstream drv(drvPath, std::ios::binary);
  std::ofstream idx(std::filesystem::path(drvPath).replace_extension("idx"), std::ios::binary);
  std::uint64_t offset = 0;
  std::uint32_t frames = 0;
  while (static_cast<int>(frames / kFps) < mostSeconds) {
    const test::EncodedFrame& frame = Clip()[frames % Clip().size()];
    if (frame.key && offset + 2'000'000 > bytes) {
      break;
    }
    cms::VideoFrameInfo info;
    info.payloadSize = static_cast<std::uint32_t>(frame.data.size());
    info.hostSeconds = kStart + frames / kFps;
    info.frameRate = kFps;
    info.frameType = frame.key ? cms::kKeyFrame : cms::kOtherFrame;
    info.videoType = cms::CMS_VIDEO_H264;
    info.sequence = frames + 1;
    std::array<std::uint8_t, cms::kVideoHeaderRoom> area;
    cms::BuildVideoFrameHeader(area, info);
    DrvIdx record{};
    record.offset = static_cast<std::uint32_t>(offset);
    record.milliseconds =
        static_cast<std::uint64_t>(info.hostSeconds) * 1000 + frames % kFps * 1000 / kFps;
    record.frameType = frame.key ? cms::kKeyFrame : cms::kOtherFrame;
    drv.write(reinterpret_cast<const char*>(area.data()), area.size());
    drv.write(reinterpret_cast<const char*>(frame.data.data()),
              static_cast<std::streamsize>(frame.data.size()));
    idx.write(reinterpret_cast<const char*>(&record), sizeof(record));
    offset += area.size() + frame.data.size();
    ++frames;
  }
  return static_cast<int>(frames / kFps);
}

double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

double ProcessSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Decodes and converts `count` frames; false when a picture is missing.
bool DecodeBare(CMSDecoder& decoder, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto& data = Clip()[i % Clip().size()].data;
    if (decoder.Decode(data.data(), static_cast<int>(data.size()), nullptr) !=
        DECODE_RESULT_PICTURE) {
      return false;
    }
  }
  return true;
}

bool DecodeInTurn(std::span<CMSDecoder> decoders, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto& data = Clip()[i / decoders.size() % Clip().size()].data;
    if (decoders[i % decoders.size()].Decode(data.data(), static_cast<int>(data.size()), nullptr) !=
        DECODE_RESULT_PICTURE) {
      return false;
    }
  }
  return true;
}

// Paused at the beginning, one channel for each file, its pictures small.
bool Open(benchmark::State& state, CCMSMultiSitePlaybackCtrl& player,
          const std::vector<std::filesystem::path>& files) {
  _MULTI_SITE_PLAYBACK_CONFIG config;
  config.startPaused = true;
  for (const auto& file : files) {
    cms::_MULTI_PB_SITE_CONFIG site;
    site.files = {cms::SystemPath(file.string())};
    config.sites.push_back(site);
  }
  if (player.SetConfig(config) == 0 || player.StartPlayback() == 0 ||
      player.WaitUntilShown(30'000) == 0) {
    state.SkipWithError(player.GetLastErrorText().c_str());
    return false;
  }
  for (int site = 0; site < player.GetTotalPlaySite(); ++site) {
    player.SetDecoderRenderCallback(static_cast<unsigned>(site), 0, &kDisplay, nullptr);
  }
  player.WaitUntilShown(30'000);
  return true;
}

void BM_Seek(benchmark::State& state) {
  const char* const gib = std::getenv("ORVANTA_BENCH_GIB");
  const auto bytes =
      static_cast<std::uint64_t>((gib != nullptr ? std::atof(gib) : 4.0) * (1ULL << 30));
  const Folder folder;
  const int seconds =
      Record(folder.path / "a.drv", std::min<std::uint64_t>(bytes, UINT32_MAX), INT_MAX);
  CMSDecoder decoder;
  decoder.Create(DECODE_CODEC_H264, {});
  decoder.SetDisplaySize(kDisplay, nullptr);
  DecodeBare(decoder, kGop);
  double gop = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto start = Clock::now();
    DecodeBare(decoder, kGop);
    gop = std::min(gop, Milliseconds(Clock::now() - start));
  }
  CCMSMultiSitePlaybackCtrl player;
  if (!Open(state, player, {folder.path / "a.drv"})) {
    return;
  }
  std::mt19937 random(1);
  double longest = 0;
  double total = 0;
  std::uint64_t seeks = 0;
  for (auto _ : state) {
    const std::int64_t target =
        (kStart + static_cast<std::int64_t>(random() % static_cast<unsigned>(seconds))) * 1000 +
        960;
    const auto start = Clock::now();
    player.SetPlaybackTargetTime(target);
    player.WaitUntilShown(30'000);
    const double taken = Milliseconds(Clock::now() - start);
    state.SetIterationTime(taken / 1000);
    longest = std::max(longest, taken);
    total += taken;
    ++seeks;
    if (player.CurTimeGet(0, 0) != target) {
      state.SkipWithError("the picture of another time");
      return;
    }
  }
  state.counters["recorded_s"] = seconds;
  state.counters["gop_decode_ms"] = gop;
  state.counters["mean_ms"] = total / static_cast<double>(std::max<std::uint64_t>(seeks, 1));
  state.counters["longest_ms"] = longest;
}

void BM_Sites(benchmark::State& state) {
  const auto sites = static_cast<unsigned>(state.range(0));
  const bool forward = state.range(1) > 0;
  constexpr int kSeconds = 10;
  const Folder folder;
  std::vector<std::filesystem::path> files;
  for (unsigned site = 0; site < sites; ++site) {
    files.push_back(folder.path / (std::to_string(site) + ".drv"));
    Record(files.back(), UINT32_MAX, kSeconds + 5);
  }
  std::vector<CMSDecoder> decoders(sites);
  for (CMSDecoder& decoder : decoders) {
    decoder.Create(DECODE_CODEC_H264, {});
    decoder.SetDisplaySize(kDisplay, nullptr);
    DecodeBare(decoder, kGop);
  }
  for (auto _ : state) {
    CCMSMultiSitePlaybackCtrl player;
    if (!Open(state, player, files)) {
      return;
    }
    if (!forward) {
      player.SetPlaybackTargetTime(player.GetPlaybackDataEndTime());
      player.WaitUntilShown(30'000);
    }
    const auto shown = [&player, sites] {
      std::uint64_t sum = 0;
      for (unsigned site = 0; site < sites; ++site) {
        cms::stPlaybackChannelStatus status;
        player.GetChannelStatus(site, 0, &status);
        sum += status.shown;
      }
      return sum;
    };
    const std::uint64_t shownBefore = shown();
    const double before = ProcessSeconds();
    const auto start = Clock::now();
    if (forward) {
      player.PlaybackResume();
    } else {
      player.PlaybackSetSlowDown();
    }
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    const double wall = Milliseconds(Clock::now() - start) / 1000;
    const double played = ProcessSeconds() - before;
    const std::uint64_t pictures = shown() - shownBefore;
    const std::int64_t skew = player.GetMaximumSkew();
    player.StopPlayback();
    double bareBefore = ProcessSeconds();
    DecodeInTurn(decoders, pictures);
    const double bare = ProcessSeconds() - bareBefore;
    bareBefore = ProcessSeconds();
    DecodeBare(decoders[0], pictures);
    const double inARow = ProcessSeconds() - bareBefore;
    state.SetIterationTime(wall);
    state.counters["pictures"] = static_cast<double>(pictures);
    state.counters["played_core"] = played / wall;
    state.counters["bare_core"] = bare / wall;
    state.counters["core_above_bare"] = (played - bare) / wall;
    state.counters["core_above_one_in_a_row"] = (played - inARow) / wall;
    state.counters["max_skew_ms"] = static_cast<double>(skew);
  }
}

BENCHMARK(BM_Seek)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(50);
BENCHMARK(BM_Sites)
    ->ArgsProduct({{4, 16}, {1, -1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
