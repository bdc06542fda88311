#include "cms/playback/clip/internal/view_encoder.h"

#include <stdexcept>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include "cms/live/media/internal/fisheye_picture.h"
#include "cms/live/media/internal/video_codec.h"

namespace cms {
namespace {

constexpr int kTicksPerSecond = 1'000'000;
constexpr int kKeyEvery = 50;  // pictures

void CheckView(int result) {
  if (result < 0) {
    char why[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, why, sizeof(why));
    throw std::runtime_error(std::string("the view cannot be encoded as H.264: ") + why);
  }
}

}  // namespace

struct ViewEncoder::State {
  ~State() {
    avcodec_free_context(&context);
    av_packet_free(&packet);
  }
  void Open(const ViewFormat& format);
  void Encode(const AVFrame& decoded);

  VideoCodec codec;
  FisheyePicture look;
  AVCodecContext* context = nullptr;
  AVPacket* packet = av_packet_alloc();
  std::int64_t interval = 0;  // of the pictures that came last
};

void ViewEncoder::State::Open(const ViewFormat& format) {
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_H264);
  CheckView(encoder == nullptr ? AVERROR_ENCODER_NOT_FOUND : 0);
  context = avcodec_alloc_context3(encoder);
  CheckView(context == nullptr || packet == nullptr ? AVERROR(ENOMEM) : 0);
  context->width = format.width / 2 * 2;
  context->height = format.height / 2 * 2;
  context->pix_fmt = AV_PIX_FMT_YUV420P;
  context->color_range = format.fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  context->time_base = {1, kTicksPerSecond};
  context->gop_size = kKeyEvery;
  context->max_b_frames = 0;
  context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  // Of the usual encoder; others have their own.
  av_opt_set(context->priv_data, "preset", "veryfast", 0);
  av_opt_set(context->priv_data, "tune", "zerolatency", 0);  // sound does not wait for pictures
  av_opt_set(context->priv_data, "crf", "20", 0);
  CheckView(avcodec_open2(context, encoder, nullptr));
  look.Set(format.fisheye);
  codec.Open(format.codec);
}

void ViewEncoder::State::Encode(const AVFrame& decoded) {
  const AVFrame* const view = look.Look(decoded, context->width, context->height);
  const AVFrame* const planar = view != nullptr ? look.In420(*view) : nullptr;
  if (planar == nullptr) {
    return;
  }
  // The encoder may keep the picture for a while; the next view is made in the same place.
  const std::unique_ptr<AVFrame, void (*)(AVFrame*)> copy(
      av_frame_alloc(), [](AVFrame* frame) { av_frame_free(&frame); });
  CheckView(copy ? 0 : AVERROR(ENOMEM));
  copy->format = planar->format;
  copy->width = planar->width;
  copy->height = planar->height;
  CheckView(av_frame_get_buffer(copy.get(), 0));
  copy->color_range = context->color_range;
  copy->pts = decoded.pts;
  CheckView(av_frame_copy(copy.get(), planar));
  copy->format = AV_PIX_FMT_YUV420P;  // not by its name for full range
  CheckView(avcodec_send_frame(context, copy.get()));
}

ViewEncoder::ViewEncoder(const ViewFormat& format) : state_(std::make_unique<State>()) {
  state_->Open(format);
}

ViewEncoder::~ViewEncoder() = default;

std::span<const std::uint8_t> ViewEncoder::ParameterSets() const {
  return {state_->context->extradata, static_cast<std::size_t>(state_->context->extradata_size)};
}

int ViewEncoder::Width() const {
  return state_->context->width;
}

int ViewEncoder::Height() const {
  return state_->context->height;
}

void ViewEncoder::Add(std::span<const std::uint8_t> frame, const PictureTimes& times) {
  state_->interval = times.interval;
  if (state_->codec.Decode(frame.data(), static_cast<int>(frame.size()), times.presentation) ==
      VideoCodec::Result::kPicture) {
    state_->Encode(state_->codec.Picture());
  }
}

void ViewEncoder::End() {
  while (state_->codec.Drain() == VideoCodec::Result::kPicture) {
    state_->Encode(state_->codec.Picture());
  }
  CheckView(avcodec_send_frame(state_->context, nullptr));
}

std::optional<ViewEncoder::Picture> ViewEncoder::Next() {
  State& state = *state_;
  av_packet_unref(state.packet);
  const int received = avcodec_receive_packet(state.context, state.packet);
  if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
    return std::nullopt;
  }
  CheckView(received);
  CheckView(av_packet_make_writable(state.packet));
  const PictureTimes times{state.packet->pts, state.packet->pts, state.interval};
  return Picture{{state.packet->data, static_cast<std::size_t>(state.packet->size)},
                 times,
                 (state.packet->flags & AV_PKT_FLAG_KEY) != 0};
}

}  // namespace cms
