// 1080p H.264 to 960x540 BGRA on one thread, on the same clip: our decoder, a plain loop over the
// codec library, and the ffmpeg program:
//
//   ffmpeg -v error -threads 1 -filter_threads 1 -i CLIP -vf scale=960:540:flags=fast_bilinear
//          -pix_fmt bgra -f null -
//
// Times are processor time, so that a busy machine disturbs little; ms_per_frame is the figure to
// compare. All three count the same frames: those after the first GOP, which is decoded to warm up
// (for the program: the difference of two runs, so that its start-up does not count either).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include "cms/live/decoder.h"
#include "tests/support/encoded_clip.h"

namespace {

constexpr int kWidth = 960;
constexpr int kHeight = 540;
constexpr std::size_t kWarmFrames = 50;
constexpr std::size_t kFrames = 250;

const std::vector<test::EncodedFrame>& Clip() {
  static const std::vector<test::EncodedFrame> clip = [] {
    test::ClipSpec spec;
    spec.width = 1920;
    spec.height = 1080;
    spec.frames = static_cast<int>(kFrames);
    spec.gop = static_cast<int>(kWarmFrames);
    spec.profile = test::ClipProfile::kHigh;
    spec.bitrate = 4'000'000;
    spec.noise = true;
    auto frames = test::EncodeClip(spec);
    for (test::EncodedFrame& frame : frames) {
      frame.data.reserve(frame.data.size() + CMSDecoder::kInputPadding);
    }
    return frames;
  }();
  return clip;
}

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double ThreadTime() {
  return Seconds(CLOCK_THREAD_CPUTIME_ID);
}

double ChildrenTime() {
  rusage used{};
  getrusage(RUSAGE_CHILDREN, &used);
  return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
         static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) * 1e-6;
}

void Report(benchmark::State& state, double seconds) {
  const double frames =
      static_cast<double>(state.iterations()) * static_cast<double>(kFrames - kWarmFrames);
  state.counters["ms_per_frame"] = seconds * 1000 / frames;
}

void BM_CMSDecoder(benchmark::State& state) {
  const auto& clip = Clip();
  double total = 0;
  for (auto _ : state) {
    CMSDecoder decoder;
    decoder.Create(DECODE_CODEC_H264, {});
    decoder.SetDisplaySize({kWidth, kHeight}, nullptr);
    double start = 0;
    for (const test::EncodedFrame& frame : clip) {
      if (frame.pts == static_cast<std::int64_t>(kWarmFrames)) {
        start = ThreadTime();
      }
      if (decoder.Decode(frame.data.data(), static_cast<int>(frame.data.size()), nullptr) != 0) {
        state.SkipWithError("no picture");
        return;
      }
    }
    const double spent = ThreadTime() - start;
    state.SetIterationTime(spent);
    total += spent;
  }
  Report(state, total);
}

void BM_PlainLoop(benchmark::State& state) {
  const auto& clip = Clip();
  auto* pixels = static_cast<std::uint8_t*>(av_malloc(kWidth * kHeight * 4 + 64));
  std::uint8_t* planes[4] = {pixels, nullptr, nullptr, nullptr};
  const int strides[4] = {kWidth * 4, 0, 0, 0};
  double total = 0;
  for (auto _ : state) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    context->thread_count = 1;
    avcodec_open2(context, codec, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    SwsContext* scaler = nullptr;
    double start = 0;
    for (const test::EncodedFrame& encoded : clip) {
      if (encoded.pts == static_cast<std::int64_t>(kWarmFrames)) {
        start = ThreadTime();
      }
      packet->data = const_cast<std::uint8_t*>(encoded.data.data());
      packet->size = static_cast<int>(encoded.data.size());
      if (avcodec_send_packet(context, packet) < 0 || avcodec_receive_frame(context, frame) < 0) {
        state.SkipWithError("no picture");
        break;
      }
      scaler = sws_getCachedContext(scaler, frame->width, frame->height,
                                    static_cast<AVPixelFormat>(frame->format), kWidth, kHeight,
                                    AV_PIX_FMT_BGRA, SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
      sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
    }
    const double spent = ThreadTime() - start;
    state.SetIterationTime(spent);
    total += spent;
    sws_freeContext(scaler);
    packet->data = nullptr;
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
  }
  av_free(pixels);
  Report(state, total);
}

std::string WriteClip() {
  char name[] = "/tmp/decode_bench_XXXXXX";
  std::FILE* file = fdopen(mkstemp(name), "wb");
  if (file == nullptr) {
    return "";
  }
  for (const test::EncodedFrame& frame : Clip()) {
    std::fwrite(frame.data.data(), 1, frame.data.size(), file);
  }
  std::fclose(file);
  return name;
}

// Processor seconds of one run over the first `frames` frames; negative when it failed.
double RunFfmpeg(const std::string& clip, std::size_t frames) {
  const std::string command = "ffmpeg -v error -threads 1 -filter_threads 1 -f h264 -i " + clip +
                              " -frames:v " + std::to_string(frames) +
                              " -vf scale=960:540:flags=fast_bilinear -pix_fmt bgra -f null - 2>&1";
  const double start = ChildrenTime();
  std::FILE* pipe = popen(command.c_str(), "r");
  return pipe != nullptr && pclose(pipe) == 0 ? ChildrenTime() - start : -1;
}

void BM_FfmpegProgram(benchmark::State& state) {
  const std::string clip = WriteClip();
  double total = 0;
  for (auto _ : state) {
    const double startUp = RunFfmpeg(clip, kWarmFrames);
    const double all = RunFfmpeg(clip, kFrames);
    if (startUp < 0 || all < 0) {
      state.SkipWithError("ffmpeg failed");
      break;
    }
    state.SetIterationTime(all - startUp);
    total += all - startUp;
  }
  std::remove(clip.c_str());
  Report(state, total);
}

BENCHMARK(BM_CMSDecoder)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(4);
BENCHMARK(BM_PlainLoop)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(4);
BENCHMARK(BM_FfmpegProgram)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(4);

}  // namespace

BENCHMARK_MAIN();
