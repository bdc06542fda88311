// Nanoseconds a sample: G.711 both ways and IMA ADPCM decoding, in calls of 160 and 16,000 samples,
// ours beside libavcodec's decoders and encoders on the same sound.
//
// Each side does what a player or sender does for a block: libavcodec is sent a packet or frame
// made beforehand and gives back its own buffer; we decode into the decoder's buffer and encode
// into the caller's. libavcodec's IMA blocks have a header of 4 bytes and the first sample in it,
// ours one of 64 bytes: both are counted as so many samples as the call is named after.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/exports/audio_exports.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

void Require(bool held, const char* what) {
  if (!held) {
    std::fprintf(stderr, "codec_bench: %s failed\n", what);
    std::exit(1);
  }
}

// A tone that swells, with noise on it.
const Samples& Sound() {
  static const Samples sound = [] {
    std::mt19937 random(3);
    Samples samples;
    for (int i = 0; i < 16000; ++i) {
      const double tone = std::sin(i * 0.345) * 12000 * (1 + std::sin(i * 0.0007)) / 2;
      samples.push_back(
          static_cast<std::int16_t>(tone + static_cast<double>(random() % 800) - 400));
    }
    return samples;
  }();
  return sound;
}

Samples Sound(std::size_t count) {
  return {Sound().begin(), Sound().begin() + static_cast<std::ptrdiff_t>(count)};
}

Bytes G711Codes(decltype(&g711_aEncoder) encode, std::size_t count) {
  const Samples samples = Sound(count);
  Bytes codes(count);
  const int length = static_cast<int>(count);
  Require(encode(samples.data(), length, codes.data(), length) == length / 2, "encoding");
  return codes;
}

Bytes ImaCodes(std::size_t count) {
  Bytes codes;
  ADPCMState state{};
  int code = 0;
  const Samples samples = Sound(count);
  for (std::size_t i = 0; i < count; ++i) {
    code = EncodeADPCMC(samples[i], code, &state);
    if (i % 2 == 0) {
      codes.push_back(static_cast<std::uint8_t>(code));
    } else {
      codes.back() = static_cast<std::uint8_t>(codes.back() | code << 4);
    }
  }
  return codes;
}

void PerSample(benchmark::State& state) {
  const double samples =
      static_cast<double>(state.iterations()) * static_cast<double>(state.range(0));
  state.counters["ns_per_sample"] =
      benchmark::Counter(samples / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

class Codec {
 public:
  Codec(const AVCodec* codec, int blockAlign) : context_(avcodec_alloc_context3(codec)) {
    context_->sample_rate = 8000;
    context_->sample_fmt = AV_SAMPLE_FMT_S16;
    context_->bits_per_coded_sample = av_get_bits_per_sample(codec->id);
    context_->block_align = blockAlign;
    av_channel_layout_default(&context_->ch_layout, 1);
    Require(avcodec_open2(context_, codec, nullptr) == 0, "opening libavcodec's codec");
  }
  ~Codec() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
  }
  Codec(const Codec&) = delete;
  Codec& operator=(const Codec&) = delete;

  void Decode(benchmark::State& state, const Bytes& data) {
    Require(av_new_packet(packet_, static_cast<int>(data.size())) == 0, "packet");
    std::memcpy(packet_->data, data.data(), data.size());
    for (auto _ : state) {
      Require(avcodec_send_packet(context_, packet_) == 0 &&
                  avcodec_receive_frame(context_, frame_) == 0,
              "libavcodec's decoding");
      benchmark::DoNotOptimize(frame_->data[0]);
    }
  }

  void Encode(benchmark::State& state, const Samples& samples) {
    frame_->nb_samples = static_cast<int>(samples.size());
    frame_->format = AV_SAMPLE_FMT_S16;
    av_channel_layout_default(&frame_->ch_layout, 1);
    Require(av_frame_get_buffer(frame_, 0) == 0, "frame");
    std::memcpy(frame_->data[0], samples.data(), samples.size() * 2);
    for (auto _ : state) {
      Require(avcodec_send_frame(context_, frame_) == 0 &&
                  avcodec_receive_packet(context_, packet_) == 0,
              "libavcodec's encoding");
      benchmark::DoNotOptimize(packet_->data);
    }
  }

 private:
  AVCodecContext* context_;
  AVPacket* packet_ = av_packet_alloc();
  AVFrame* frame_ = av_frame_alloc();
};

void DecodeOurs(benchmark::State& state, CAudioDecoderBase& decoder, const Bytes& block,
                std::size_t length) {
  const cms::CAudioDecoderConfig config{0, static_cast<std::uint32_t>(length), 1, 0, nullptr};
  Require(decoder.Initialize(&config) == 1, "Initialize");
  for (auto _ : state) {
    Require(decoder.Decode(block.data(), static_cast<int>(length), 0) == 1, "Decode");
    benchmark::DoNotOptimize(decoder.GetOutputBuffer());
    benchmark::ClobberMemory();
  }
  PerSample(state);
}

void BM_G711DecodeOurs(benchmark::State& state, decltype(&g711_aEncoder) encode,
                       std::shared_ptr<CAudioDecoderBase> decoder) {
  const auto count = static_cast<std::size_t>(state.range(0));
  DecodeOurs(state, *decoder, G711Codes(encode, count), count);
}

void BM_G711DecodeLibavcodec(benchmark::State& state, decltype(&g711_aEncoder) encode,
                             AVCodecID id) {
  Codec(avcodec_find_decoder(id), 0)
      .Decode(state, G711Codes(encode, static_cast<std::size_t>(state.range(0))));
  PerSample(state);
}

void BM_G711EncodeOurs(benchmark::State& state, decltype(&g711_aEncoder) encode) {
  const Samples samples = Sound(static_cast<std::size_t>(state.range(0)));
  Bytes codes(samples.size());
  const int count = static_cast<int>(samples.size());
  for (auto _ : state) {
    Require(encode(samples.data(), count, codes.data(), count) == count / 2, "encoding");
    benchmark::ClobberMemory();
  }
  PerSample(state);
}

void BM_G711EncodeLibavcodec(benchmark::State& state, AVCodecID id) {
  Codec(avcodec_find_encoder(id), 0).Encode(state, Sound(static_cast<std::size_t>(state.range(0))));
  PerSample(state);
}

void BM_ImaDecodeOurs(benchmark::State& state) {
  Bytes block(IMAADPCMDecoder::kHeaderSize);
  const Bytes codes = ImaCodes(static_cast<std::size_t>(state.range(0)));
  block.insert(block.end(), codes.begin(), codes.end());
  IMAADPCMDecoder decoder;
  DecodeOurs(state, decoder, block, codes.size());
}

void BM_ImaDecodeLibavcodec(benchmark::State& state) {
  Bytes block(4);
  const Bytes codes = ImaCodes(static_cast<std::size_t>(state.range(0)));
  block.insert(block.end(), codes.begin(), codes.end());
  Codec(avcodec_find_decoder(AV_CODEC_ID_ADPCM_IMA_WAV), static_cast<int>(block.size()))
      .Decode(state, block);
  PerSample(state);
}

// Code by code through the exported function: for information, libavcodec has no such call.
void BM_ImaDecodeCodes(benchmark::State& state) {
  const Bytes codes = ImaCodes(static_cast<std::size_t>(state.range(0)));
  Samples samples(codes.size() * 2);
  for (auto _ : state) {
    ADPCMState decoder{};
    for (std::size_t i = 0; i < codes.size(); ++i) {
      samples[2 * i] = static_cast<std::int16_t>(DecodeADPCMC(codes[i] & 0xF, &decoder));
      samples[2 * i + 1] = static_cast<std::int16_t>(DecodeADPCMC(codes[i] >> 4, &decoder));
    }
    benchmark::DoNotOptimize(samples.data());
    benchmark::ClobberMemory();
  }
  PerSample(state);
}

#define CALLS Arg(160)->Arg(16000)
BENCHMARK_CAPTURE(BM_G711DecodeOurs, alaw, g711_aEncoder, std::make_shared<ALawDecoder>())->CALLS;
BENCHMARK_CAPTURE(BM_G711DecodeLibavcodec, alaw, g711_aEncoder, AV_CODEC_ID_PCM_ALAW)->CALLS;
BENCHMARK_CAPTURE(BM_G711DecodeOurs, mulaw, g711_uEncoder, std::make_shared<MULawDecoder>())->CALLS;
BENCHMARK_CAPTURE(BM_G711DecodeLibavcodec, mulaw, g711_uEncoder, AV_CODEC_ID_PCM_MULAW)->CALLS;
BENCHMARK_CAPTURE(BM_G711EncodeOurs, alaw, g711_aEncoder)->CALLS;
BENCHMARK_CAPTURE(BM_G711EncodeLibavcodec, alaw, AV_CODEC_ID_PCM_ALAW)->CALLS;
BENCHMARK_CAPTURE(BM_G711EncodeOurs, mulaw, g711_uEncoder)->CALLS;
BENCHMARK_CAPTURE(BM_G711EncodeLibavcodec, mulaw, AV_CODEC_ID_PCM_MULAW)->CALLS;
BENCHMARK(BM_ImaDecodeOurs)->CALLS;
BENCHMARK(BM_ImaDecodeLibavcodec)->CALLS;
BENCHMARK(BM_ImaDecodeCodes)->CALLS;

}  // namespace

BENCHMARK_MAIN();
