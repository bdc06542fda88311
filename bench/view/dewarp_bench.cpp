// Views of a fisheye camera's 1080p picture at 960x540, beside a plain bilinear scale of the same
// picture to the same size by libswscale; planar 4:2:0 to 4:2:0, one thread each. And what it takes
// to make the tables of a view, once for each that moves.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

#include "cms/live/media/fisheye/fisheye_dewarper.h"

namespace {

struct Planes {
  Planes(int across, int down)
      : width(across),
        height(down),
        luma(static_cast<std::size_t>(across * down)),
        blue(luma.size() / 4),
        red(luma.size() / 4) {
    std::uint32_t random = 1;
    for (std::vector<std::uint8_t>* plane : {&luma, &blue, &red}) {
      for (std::uint8_t& value : *plane) {
        random = random * 1664525U + 1013904223U;
        value = static_cast<std::uint8_t>(random >> 24);
      }
    }
  }
  int width;
  int height;
  std::vector<std::uint8_t> luma;
  std::vector<std::uint8_t> blue;
  std::vector<std::uint8_t> red;
};

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

cms::FisheyeJob Job(cms::FisheyeViewKind kind, double pan) {
  cms::FisheyeJob job;
  job.lens.circle = {959.5, 539.5, 540};
  job.view = cms::MakeFisheyeView(kind, job.lens.mount);
  job.view.cameras[0].pan = pan;
  job.source = {kWidth, kHeight};
  job.shown = {kWidth / 2, kHeight / 2};
  return job;
}

void Scale(benchmark::State& state, int flags) {
  const Planes from(kWidth, kHeight);
  Planes to(kWidth / 2, kHeight / 2);
  SwsContext* const scaler =
      sws_getContext(from.width, from.height, AV_PIX_FMT_YUV420P, to.width, to.height,
                     AV_PIX_FMT_YUV420P, flags, nullptr, nullptr, nullptr);
  const std::uint8_t* const source[] = {from.luma.data(), from.blue.data(), from.red.data(),
                                        nullptr};
  const int sourceStrides[] = {from.width, from.width / 2, from.width / 2, 0};
  std::uint8_t* const target[] = {to.luma.data(), to.blue.data(), to.red.data(), nullptr};
  const int targetStrides[] = {to.width, to.width / 2, to.width / 2, 0};
  for (auto _ : state) {
    sws_scale(scaler, source, sourceStrides, 0, from.height, target, targetStrides);
    benchmark::ClobberMemory();
  }
  sws_freeContext(scaler);
}

void Dewarp(benchmark::State& state, cms::FisheyeViewKind kind) {
  const Planes from(kWidth, kHeight);
  Planes to(kWidth / 2, kHeight / 2);
  cms::FisheyeDewarper dewarper;
  dewarper.Prepare(Job(kind, 0));
  for (auto _ : state) {
    using cms::FisheyePlane;
    if (!dewarper.Dewarp(FisheyePlane::kLuma, from.luma, kWidth, to.luma, kWidth / 2, 16) ||
        !dewarper.Dewarp(FisheyePlane::kChroma, from.blue, kWidth / 2, to.blue, kWidth / 4, 128) ||
        !dewarper.Dewarp(FisheyePlane::kChroma, from.red, kWidth / 2, to.red, kWidth / 4, 128)) {
      state.SkipWithError("not dewarped");
      break;
    }
    benchmark::ClobberMemory();
  }
}

void Tables(benchmark::State& state, cms::FisheyeViewKind kind) {
  cms::FisheyeDewarper dewarper;
  double pan = 0;
  for (auto _ : state) {
    dewarper.Prepare(Job(kind, pan += 1));
  }
}

using cms::FisheyeViewKind;
BENCHMARK_CAPTURE(Scale, libswscale_bilinear, SWS_BILINEAR)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Scale, libswscale_fast_bilinear, SWS_FAST_BILINEAR)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Dewarp, one_camera, FisheyeViewKind::kOneCamera)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Dewarp, four_cameras, FisheyeViewKind::kFourCameras)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Dewarp, panorama, FisheyeViewKind::kPanorama)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Tables, one_camera, FisheyeViewKind::kOneCamera)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Tables, panorama, FisheyeViewKind::kPanorama)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
