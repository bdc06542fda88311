#include "tests/support/plain_decoder.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace test {

struct PlainDecoder::State {
  AVCodecContext* context = nullptr;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  AVFrame* bgra = av_frame_alloc();
};

PlainDecoder::PlainDecoder(ClipCodec codec) : state_(std::make_unique<State>()) {
  const AVCodec* decoder = avcodec_find_decoder(codec == ClipCodec::kH264    ? AV_CODEC_ID_H264
                                                : codec == ClipCodec::kH265  ? AV_CODEC_ID_HEVC
                                                : codec == ClipCodec::kMjpeg ? AV_CODEC_ID_MJPEG
                                                                             : AV_CODEC_ID_MPEG4);
  state_->context = avcodec_alloc_context3(decoder);
  state_->context->thread_count = 1;
  avcodec_open2(state_->context, decoder, nullptr);
}

PlainDecoder::~PlainDecoder() {
  avcodec_free_context(&state_->context);
  av_packet_free(&state_->packet);
  av_frame_free(&state_->frame);
  av_frame_free(&state_->bgra);
}

std::vector<std::uint8_t> PlainDecoder::DecodeToBgra(const std::vector<std::uint8_t>& data,
                                                     int width, int height) {
  if (av_new_packet(state_->packet, static_cast<int>(data.size())) < 0) {
    return {};
  }
  std::memcpy(state_->packet->data, data.data(), data.size());
  const int sent = avcodec_send_packet(state_->context, state_->packet);
  av_packet_unref(state_->packet);
  const AVFrame* frame = state_->frame;
  if (sent < 0 || avcodec_receive_frame(state_->context, state_->frame) < 0) {
    return {};
  }
  // Of a full-range format the scaler knows the range by itself.
  const AVPixelFormat format = static_cast<AVPixelFormat>(frame->format);
  AVFrame* bgra = state_->bgra;
  bgra->format = AV_PIX_FMT_BGRA;
  bgra->width = width;
  bgra->height = height;
  av_frame_get_buffer(bgra, 0);
  SwsContext* scaler =
      sws_getContext(frame->width, frame->height, format, width, height, AV_PIX_FMT_BGRA,
                     SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
  sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, bgra->data, bgra->linesize);
  sws_freeContext(scaler);
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) *
                                   static_cast<std::size_t>(height) * 4);
  av_image_copy_to_buffer(pixels.data(), static_cast<int>(pixels.size()), bgra->data,
                          bgra->linesize, AV_PIX_FMT_BGRA, width, height, 1);
  av_frame_unref(bgra);
  av_frame_unref(state_->frame);
  return pixels;
}

}  // namespace test
