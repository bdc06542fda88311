#include "cms/playback/clip/internal/sound_encoder.h"

#include <algorithm>
#include <stdexcept>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libswresample/swresample.h>
}

#include "cms/audio/internal/block_decoder.h"
#include "cms/playback/clip/internal/clip_writer.h"

namespace cms {
namespace {

constexpr std::uint32_t kLongestBlock = 65536;

tCMSAudioPlayerConfig BlocksOf(const ClipAudio& sound) {
  tCMSAudioPlayerConfig config;
  config.codecId = static_cast<std::int32_t>(sound.codecId);
  config.sampleRate = static_cast<std::uint32_t>(sound.sampleRate);
  config.channels = static_cast<std::uint32_t>(sound.channels);
  config.maximumBlockSize = kLongestBlock;
  return config;
}

void CheckSound(int result) {
  if (result < 0) {
    char why[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, why, sizeof(why));
    throw std::runtime_error(std::string("the sound cannot be made AAC: ") + why);
  }
}

// The sound's own rate, or the next one above it that the encoder takes.
int EncoderRate(const AVCodec& encoder, int wanted) {
  int best = 0;
  for (const int* rate = encoder.supported_samplerates; rate != nullptr && *rate != 0; ++rate) {
    const bool nearer = best < wanted ? *rate > best : *rate >= wanted && *rate < best;
    best = nearer ? *rate : best;
  }
  return best != 0 ? best : wanted;
}

}  // namespace

struct SoundEncoder::State {
  explicit State(const ClipAudio& sound) : decoder(BlocksOf(sound)) {}
  ~State() {
    avcodec_free_context(&context);
    swr_free(&converter);
    av_audio_fifo_free(waiting);
    av_frame_free(&converted);
    av_frame_free(&frame);
    av_packet_free(&packet);
  }

  void Open(const ClipAudio& sound);
  void SendFrame();

  BlockDecoder decoder;
  AVCodecContext* context = nullptr;
  SwrContext* converter = nullptr;
  AVAudioFifo* waiting = nullptr;  // samples for which a frame is not full
  AVFrame* converted = av_frame_alloc();
  AVFrame* frame = av_frame_alloc();
  AVPacket* packet = av_packet_alloc();
  std::int64_t next = 0;  // the first waiting sample
  bool ended = false;
  bool flushed = false;
};

void SoundEncoder::State::Open(const ClipAudio& sound) {
  constexpr std::int64_t kBitsPerSample = 4;
  constexpr std::int64_t kLeastRate = 24'000;  // bits a second and channel
  constexpr std::int64_t kMostRate = 96'000;
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_AAC);
  CheckSound(encoder == nullptr ? AVERROR_ENCODER_NOT_FOUND : 0);
  context = avcodec_alloc_context3(encoder);
  CheckSound(context == nullptr || converted == nullptr || frame == nullptr || packet == nullptr
                 ? AVERROR(ENOMEM)
                 : 0);
  context->sample_fmt = AV_SAMPLE_FMT_FLTP;
  context->sample_rate = EncoderRate(*encoder, sound.sampleRate);
  context->time_base = {1, context->sample_rate};
  context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  context->bit_rate =
      std::clamp(kBitsPerSample * context->sample_rate, kLeastRate, kMostRate) * sound.channels;
  av_channel_layout_default(&context->ch_layout, sound.channels);
  CheckSound(avcodec_open2(context, encoder, nullptr));
  CheckSound(swr_alloc_set_opts2(&converter, &context->ch_layout, context->sample_fmt,
                                 context->sample_rate, &context->ch_layout, AV_SAMPLE_FMT_S16,
                                 sound.sampleRate, 0, nullptr));
  CheckSound(swr_init(converter));
  waiting = av_audio_fifo_alloc(context->sample_fmt, sound.channels, context->frame_size);
  CheckSound(waiting == nullptr ? AVERROR(ENOMEM) : 0);
}

// A full frame of what waits, or the last of it with silence behind.
void SoundEncoder::State::SendFrame() {
  av_frame_unref(frame);
  frame->format = context->sample_fmt;
  frame->sample_rate = context->sample_rate;
  frame->nb_samples = context->frame_size;
  CheckSound(av_channel_layout_copy(&frame->ch_layout, &context->ch_layout));
  CheckSound(av_frame_get_buffer(frame, 0));
  const int got = av_audio_fifo_read(waiting, reinterpret_cast<void**>(frame->extended_data),
                                     context->frame_size);
  CheckSound(got);
  CheckSound(av_samples_set_silence(frame->extended_data, got, context->frame_size - got,
                                    context->ch_layout.nb_channels, context->sample_fmt));
  frame->pts = next;
  next += context->frame_size;
  CheckSound(avcodec_send_frame(context, frame));
}

SoundEncoder::SoundEncoder(const ClipAudio& sound) : state_(std::make_unique<State>(sound)) {
  state_->Open(sound);
}

SoundEncoder::~SoundEncoder() = default;

bool SoundEncoder::Knows(const ClipAudio& sound) {
  constexpr int kMostChannels = 2;  // of the decoders
  return BlockDecoder::Knows(static_cast<std::int32_t>(sound.codecId)) && sound.sampleRate > 0 &&
         sound.channels > 0 && sound.channels <= kMostChannels;
}

const AVCodecContext& SoundEncoder::Context() const {
  return *state_->context;
}

int SoundEncoder::Rate() const {
  return state_->context->sample_rate;
}

std::size_t SoundEncoder::Add(std::span<const std::uint8_t> block) {
  State& state = *state_;
  const auto samples = state.decoder.Decode(block.data(), static_cast<int>(block.size()));
  const int channels = state.context->ch_layout.nb_channels;
  const int count = static_cast<int>(samples.size()) / channels;
  if (count == 0) {
    return 0;
  }
  av_frame_unref(state.converted);
  state.converted->format = state.context->sample_fmt;
  state.converted->nb_samples = swr_get_out_samples(state.converter, count);
  CheckSound(av_channel_layout_copy(&state.converted->ch_layout, &state.context->ch_layout));
  CheckSound(av_frame_get_buffer(state.converted, 0));
  const auto* from = reinterpret_cast<const std::uint8_t*>(samples.data());
  const int made = swr_convert(state.converter, state.converted->extended_data,
                               state.converted->nb_samples, &from, count);
  CheckSound(made);
  CheckSound(av_audio_fifo_write(state.waiting,
                                 reinterpret_cast<void**>(state.converted->extended_data), made));
  return static_cast<std::size_t>(made);
}

void SoundEncoder::GoTo(std::int64_t sample) {
  if (av_audio_fifo_size(state_->waiting) > 0) {
    state_->SendFrame();
  }
  state_->next = std::max(state_->next, sample);
}

void SoundEncoder::Stretch(std::int64_t samples) {
  const int rate = Rate();
  const int most = rate / 10;  // of a second: heard as another pitch
  CheckSound(swr_set_compensation(
      state_->converter, static_cast<int>(std::clamp<std::int64_t>(samples, -most, most)), rate));
}

void SoundEncoder::End() {
  state_->ended = true;
}

AVPacket* SoundEncoder::Next() {
  State& state = *state_;
  for (;;) {
    const int received = avcodec_receive_packet(state.context, state.packet);
    if (received == 0) {
      return state.packet;
    }
    if (received == AVERROR_EOF || state.flushed) {
      return nullptr;
    }
    CheckSound(received == AVERROR(EAGAIN) ? 0 : received);
    const int waiting = av_audio_fifo_size(state.waiting);
    if (waiting >= state.context->frame_size || (state.ended && waiting > 0)) {
      state.SendFrame();
    } else if (state.ended) {
      state.flushed = avcodec_send_frame(state.context, nullptr) < 0;
    } else {
      return nullptr;
    }
  }
}

}  // namespace cms
