#include "tests/support/audio_codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace test {
namespace {

struct Free {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Context = std::unique_ptr<AVCodecContext, Free>;
using Frame = std::unique_ptr<AVFrame, Free>;
using Packet = std::unique_ptr<AVPacket, Free>;

void Require(bool held, const char* what) {
  if (!held) {
    throw std::runtime_error(std::string("libavcodec: ") + what);
  }
}

Context Open(const AVCodec* codec, int channels, int blockSize) {
  Require(codec != nullptr, "no such codec");
  Context context(avcodec_alloc_context3(codec));
  context->sample_rate = 8000;
  av_channel_layout_default(&context->ch_layout, channels);
  context->block_align = blockSize;
  context->bits_per_coded_sample = av_get_bits_per_sample(codec->id);
  if (av_codec_is_encoder(codec) != 0) {
    context->sample_fmt = codec->sample_fmts[0];
    if (blockSize > 0) {
      Require(av_opt_set_int(context->priv_data, "block_size", blockSize, 0) >= 0, "block_size");
    }
  }
  Require(avcodec_open2(context.get(), codec, nullptr) >= 0, "open");
  return context;
}

// Keeps what libavcodec thinks of made-up packets out of the tests' output.
class Quiet {
 public:
  Quiet() { av_log_set_level(AV_LOG_QUIET); }
  ~Quiet() { av_log_set_level(level_); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  const int level_ = av_log_get_level();
};

}  // namespace

std::vector<std::int16_t> DecodeAudio(AVCodecID codec, int channels,
                                      const std::vector<std::uint8_t>& bytes) {
  const Quiet quiet;
  const Context context =
      Open(avcodec_find_decoder(codec), channels, static_cast<int>(bytes.size()));
  const Packet packet(av_packet_alloc());
  const Frame frame(av_frame_alloc());
  Require(av_new_packet(packet.get(), static_cast<int>(bytes.size())) == 0, "packet");
  std::copy(bytes.begin(), bytes.end(), packet->data);
  if (avcodec_send_packet(context.get(), packet.get()) < 0 ||
      avcodec_receive_frame(context.get(), frame.get()) < 0) {
    return {};
  }
  const bool planar = av_sample_fmt_is_planar(context->sample_fmt) != 0;
  Require(av_get_packed_sample_fmt(context->sample_fmt) == AV_SAMPLE_FMT_S16, "sample format");
  std::vector<std::int16_t> samples;
  for (int i = 0; i < frame->nb_samples; ++i) {
    for (int channel = 0; channel < channels; ++channel) {
      const int plane = planar ? channel : 0;
      const int place = planar ? i : i * channels + channel;
      std::int16_t sample = 0;
      std::memcpy(&sample, frame->extended_data[plane] + 2 * place, sizeof sample);
      samples.push_back(sample);
    }
  }
  return samples;
}

std::vector<std::vector<std::uint8_t>> EncodeAudio(AVCodecID codec, int channels, int blockSize,
                                                   const std::vector<std::int16_t>& samples) {
  const Context context = Open(avcodec_find_encoder(codec), channels, blockSize);
  const bool planar = av_sample_fmt_is_planar(context->sample_fmt) != 0;
  Require(av_get_packed_sample_fmt(context->sample_fmt) == AV_SAMPLE_FMT_S16, "sample format");
  const auto width = static_cast<std::size_t>(channels);
  const std::size_t total = samples.size() / width;
  const std::size_t step =
      context->frame_size > 0 ? static_cast<std::size_t>(context->frame_size) : total;
  std::vector<std::vector<std::uint8_t>> packets;
  const Packet packet(av_packet_alloc());
  for (std::size_t start = 0; start < total; start += step) {
    const Frame frame(av_frame_alloc());
    frame->nb_samples = static_cast<int>(step);
    frame->format = context->sample_fmt;
    Require(av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) == 0 &&
                av_frame_get_buffer(frame.get(), 0) == 0,
            "frame");
    for (std::size_t i = 0; i < step; ++i) {
      for (std::size_t channel = 0; channel < width; ++channel) {
        const std::int16_t sample = start + i < total ? samples[(start + i) * width + channel] : 0;
        std::uint8_t* const plane = frame->extended_data[planar ? channel : 0];
        std::memcpy(plane + 2 * (planar ? i : i * width + channel), &sample, sizeof sample);
      }
    }
    Require(avcodec_send_frame(context.get(), frame.get()) == 0, "send");
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
      packets.emplace_back(packet->data, packet->data + packet->size);
      av_packet_unref(packet.get());
    }
  }
  return packets;
}

namespace {

// Everything that the muxer writes of a packet.
class AdtsMuxer {
 public:
  explicit AdtsMuxer(const AVCodecContext& encoder) {
    Require(avformat_alloc_output_context2(&context_, nullptr, "adts", nullptr) >= 0, "adts");
    AVStream* const stream = avformat_new_stream(context_, nullptr);
    Require(avcodec_parameters_from_context(stream->codecpar, &encoder) >= 0, "parameters");
    Require(avio_open_dyn_buf(&context_->pb) >= 0 && avformat_write_header(context_, nullptr) >= 0,
            "header");
  }
  ~AdtsMuxer() {
    Taken();
    avformat_free_context(context_);
  }
  AdtsMuxer(const AdtsMuxer&) = delete;
  AdtsMuxer& operator=(const AdtsMuxer&) = delete;

  std::vector<std::uint8_t> Block(AVPacket* packet) {
    Require(av_write_frame(context_, packet) >= 0, "write");
    std::vector<std::uint8_t> block = Taken();
    Require(avio_open_dyn_buf(&context_->pb) >= 0, "buffer");
    return block;
  }

 private:
  std::vector<std::uint8_t> Taken() {
    std::uint8_t* bytes = nullptr;
    const int size = avio_close_dyn_buf(context_->pb, &bytes);
    std::vector<std::uint8_t> block(bytes, bytes + size);
    av_free(bytes);
    return block;
  }

  AVFormatContext* context_ = nullptr;
};

std::vector<std::vector<std::uint8_t>> EncodeAac(int rate, int channels,
                                                 const std::vector<std::int16_t>& samples) {
  const Quiet quiet;
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  const Context context(avcodec_alloc_context3(codec));
  context->sample_fmt = AV_SAMPLE_FMT_FLTP;
  context->sample_rate = rate;
  context->bit_rate = 64'000 * channels;
  context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
  av_channel_layout_default(&context->ch_layout, channels);
  Require(avcodec_open2(context.get(), codec, nullptr) >= 0, "open");
  AdtsMuxer muxer(*context);
  std::vector<std::vector<std::uint8_t>> blocks;
  const Packet packet(av_packet_alloc());
  const auto width = static_cast<std::size_t>(channels);
  const auto step = static_cast<std::size_t>(context->frame_size);
  const std::size_t total = samples.size() / width;
  for (std::size_t start = 0; start < total + step; start += step) {
    const Frame frame(av_frame_alloc());
    frame->nb_samples = context->frame_size;
    frame->format = context->sample_fmt;
    frame->pts = static_cast<std::int64_t>(start);
    Require(av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) == 0 &&
                av_frame_get_buffer(frame.get(), 0) == 0,
            "frame");
    for (std::size_t i = 0; i < step; ++i) {
      for (std::size_t channel = 0; channel < width; ++channel) {
        const std::int16_t sample = start + i < total ? samples[(start + i) * width + channel] : 0;
        reinterpret_cast<float*>(frame->extended_data[channel])[i] =
            static_cast<float>(sample) / 32768.0F;
      }
    }
    Require(avcodec_send_frame(context.get(), start < total ? frame.get() : nullptr) == 0, "send");
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
      blocks.push_back(muxer.Block(packet.get()));
      av_packet_unref(packet.get());
    }
    if (start >= total) {
      break;
    }
  }
  return blocks;
}

std::vector<std::uint8_t> EncodeG726(bool lowFirst, int bits,
                                     const std::vector<std::int16_t>& samples) {
  const AVCodec* codec =
      avcodec_find_encoder(lowFirst ? AV_CODEC_ID_ADPCM_G726LE : AV_CODEC_ID_ADPCM_G726);
  Require(codec != nullptr, "no G.726");
  const Context context(avcodec_alloc_context3(codec));
  context->sample_fmt = AV_SAMPLE_FMT_S16;
  context->sample_rate = 8000;
  context->bit_rate = 8000 * bits;
  context->bits_per_coded_sample = bits;
  av_channel_layout_default(&context->ch_layout, 1);
  Require(avcodec_open2(context.get(), codec, nullptr) >= 0, "open");
  // The encoder has frames of its own length; a stream of codes has none.
  std::vector<std::uint8_t> codes;
  const Packet packet(av_packet_alloc());
  const auto step = static_cast<std::size_t>(context->frame_size);
  for (std::size_t start = 0; start < samples.size(); start += step) {
    const std::size_t count = std::min(step, samples.size() - start);
    const Frame frame(av_frame_alloc());
    frame->nb_samples = static_cast<int>(count);
    frame->format = AV_SAMPLE_FMT_S16;
    Require(av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) == 0 &&
                av_frame_get_buffer(frame.get(), 0) == 0,
            "frame");
    std::memcpy(frame->data[0], &samples[start], count * 2);
    Require(avcodec_send_frame(context.get(), frame.get()) == 0, "send");
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
      codes.insert(codes.end(), packet->data, packet->data + packet->size);
      av_packet_unref(packet.get());
    }
  }
  return codes;
}

AVCodecID PlainCodec(cms::CMSCodecID codec) {
  switch (codec) {
    case cms::CMS_CODEC_PCM_MULAW:
      return AV_CODEC_ID_PCM_MULAW;
    case cms::CMS_CODEC_PCM_ALAW:
      return AV_CODEC_ID_PCM_ALAW;
    case cms::CMS_CODEC_PCM_S16BE:
      return AV_CODEC_ID_PCM_S16BE;
    default:
      return AV_CODEC_ID_PCM_S16LE;
  }
}

}  // namespace

std::vector<std::vector<std::uint8_t>> EncodeBlocks(cms::CMSCodecID codec, int rate, int channels,
                                                    const std::vector<std::int16_t>& samples) {
  if (codec == cms::CMS_CODEC_AAC) {
    return EncodeAac(rate, channels, samples);
  }
  constexpr std::size_t kBlockSamples = 160;
  const int bits = cms::G726BitsOf(codec);
  const std::vector<std::uint8_t> bytes =
      bits != 0 ? EncodeG726(codec < cms::CMS_CODEC_G726_AAL2_16, bits, samples)
                : EncodeAudio(PlainCodec(codec), channels, 0, samples).at(0);
  const std::size_t block =
      bytes.size() * kBlockSamples * static_cast<std::size_t>(channels) / samples.size();
  std::vector<std::vector<std::uint8_t>> blocks;
  for (std::size_t at = 0; at + block <= bytes.size(); at += block) {
    blocks.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                        bytes.begin() + static_cast<std::ptrdiff_t>(at + block));
  }
  return blocks;
}

std::vector<std::int16_t> Tone(std::size_t samples, int rate, int channels) {
  constexpr double kTwoPi = 6.283185307;
  std::vector<std::int16_t> sound;
  for (std::size_t i = 0; i < samples; ++i) {
    const double time = static_cast<double>(i);
    const double value = 16000 * time / static_cast<double>(samples) *
                         std::sin(440 * kTwoPi * time / static_cast<double>(rate));
    sound.insert(sound.end(), static_cast<std::size_t>(channels), static_cast<std::int16_t>(value));
  }
  return sound;
}

double SignalToNoise(std::span<const std::int16_t> expected, std::span<const std::int16_t> heard) {
  double signal = 0;
  double noise = 1;
  for (std::size_t i = 0; i < std::min(expected.size(), heard.size()); ++i) {
    signal += 1.0 * expected[i] * expected[i];
    noise += 1.0 * (expected[i] - heard[i]) * (expected[i] - heard[i]);
  }
  return 10 * std::log10(signal / noise);
}

std::vector<std::int16_t> TestSound(std::size_t samples, int channels) {
  std::mt19937 random(5);
  std::vector<std::int16_t> sound;
  for (std::size_t i = 0; i < samples; ++i) {
    for (int channel = 0; channel < channels; ++channel) {
      const double time = static_cast<double>(i) / static_cast<double>(samples);
      double value = 0;
      if (time > 0.8) {
        value = (i / 23) % 2 == 0 ? 32767 : -32768;
      } else if (time > 0.6) {
        value = static_cast<double>(random() % 65536) - 32768;
      } else if (time > 0.1) {
        value = 30000 * time * std::sin(40.0 * (channel + 1) * time * time * 6.283);
      }
      sound.push_back(static_cast<std::int16_t>(value));
    }
  }
  return sound;
}

}  // namespace test
