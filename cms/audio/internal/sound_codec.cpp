#include "cms/audio/internal/sound_codec.h"

#include <algorithm>

extern "C" {
#include <libswresample/swresample.h>
}

#include "cms/live/media/internal/codec_map.h"
#include "cms/live/media/internal/library_silence.h"

namespace cms {
namespace {

constexpr int kMostOutputs = 64;  // frames taken out of one block before the rest is thrown away

}  // namespace

void SoundCodec::FreeConverter::operator()(SwrContext* converter) const {
  swr_free(&converter);
}

bool SoundCodec::Open(CMSCodecID codec, unsigned sampleRate, unsigned channels) {
  constexpr unsigned kG726Rate = 8000;  // of its bit rates' names; a faster one only plays faster
  const LibrarySilence silence;
  Close();
  const AVCodec* decoder = avcodec_find_decoder(ToLibraryCodec(codec));
  if (decoder == nullptr || decoder->type != AVMEDIA_TYPE_AUDIO || channels == 0) {
    return false;
  }
  sampleRate_ = static_cast<int>(sampleRate);
  channels_ = static_cast<int>(channels);
  context_.reset(avcodec_alloc_context3(decoder));
  frame_.reset(av_frame_alloc());
  if (context_ == nullptr || frame_ == nullptr || !packet_.Allocate()) {
    Close();
    return false;
  }
  if (const int bits = G726BitsOf(codec); bits != 0) {  // AAC tells all of this itself
    context_->sample_rate = sampleRate_ != 0 ? sampleRate_ : static_cast<int>(kG726Rate);
    context_->bits_per_coded_sample = bits;
    av_channel_layout_default(&context_->ch_layout, 1);
  }
  if (avcodec_open2(context_.get(), decoder, nullptr) != 0) {
    Close();
    return false;
  }
  return true;
}

void SoundCodec::Close() {
  converter_.reset();
  converted_ = {};
  context_.reset();
  frame_.reset();
  packet_.Free();
}

std::optional<std::size_t> SoundCodec::Decode(std::span<const std::uint8_t> block,
                                              std::span<std::uint8_t> out) {
  if (context_ == nullptr || block.empty()) {
    return std::nullopt;
  }
  const LibrarySilence silence;
  padded_.resize(std::max(padded_.size(), block.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::copy(block.begin(), block.end(), padded_.begin());
  std::fill_n(padded_.begin() + static_cast<std::ptrdiff_t>(block.size()),
              AV_INPUT_BUFFER_PADDING_SIZE, std::uint8_t{0});
  bool failed =
      packet_.Send(context_.get(), std::span(padded_).first(block.size()), AV_NOPTS_VALUE) < 0;
  std::size_t written = 0;
  for (int output = 0; output < kMostOutputs; ++output) {
    const int received = avcodec_receive_frame(context_.get(), frame_.get());
    if (received < 0) {
      failed = failed || received != AVERROR(EAGAIN);
      break;
    }
    const auto bytes = Convert(out.subspan(written));
    av_frame_unref(frame_.get());
    failed = failed || !bytes;
    written += bytes.value_or(0);
  }
  if (failed) {
    avcodec_flush_buffers(context_.get());
    return std::nullopt;
  }
  return written;
}

bool SoundCodec::PrepareConverter() {
  const StreamFormat own{frame_->format, frame_->sample_rate, frame_->ch_layout.nb_channels};
  if (converter_ != nullptr && own == converted_) {
    return true;
  }
  if (sampleRate_ == 0) {
    sampleRate_ = own.sampleRate;
  }
  AVChannelLayout wanted{};
  av_channel_layout_default(&wanted, channels_);
  SwrContext* made = nullptr;
  swr_alloc_set_opts2(&made, &wanted, AV_SAMPLE_FMT_S16, sampleRate_, &frame_->ch_layout,
                      static_cast<AVSampleFormat>(frame_->format), frame_->sample_rate, 0, nullptr);
  converter_.reset(made);
  converted_ = own;
  return made != nullptr && swr_init(made) >= 0;
}

std::optional<std::size_t> SoundCodec::Convert(std::span<std::uint8_t> out) {
  const std::size_t sampleBytes = sizeof(std::int16_t) * static_cast<std::size_t>(channels_);
  if (!PrepareConverter()) {
    converter_.reset();
    return std::nullopt;
  }
  const int samples = swr_get_out_samples(converter_.get(), frame_->nb_samples);
  if (samples < 0 || static_cast<std::size_t>(samples) * sampleBytes > out.size()) {
    return std::nullopt;
  }
  std::uint8_t* to = out.data();
  const int made =
      swr_convert(converter_.get(), &to, samples,
                  const_cast<const std::uint8_t**>(frame_->extended_data), frame_->nb_samples);
  return made < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(made) * sampleBytes);
}

}  // namespace cms
