#include "tests/support/decoded_picture.h"

#include <memory>

namespace test {

std::vector<int> DecodePicture(AVCodecID codec, const std::vector<std::uint8_t>& data) {
  const auto freeContext = [](AVCodecContext* context) { avcodec_free_context(&context); };
  const auto freeFrame = [](AVFrame* frame) { av_frame_free(&frame); };
  const auto freePacket = [](AVPacket* packet) { av_packet_free(&packet); };
  const AVCodec* decoder = avcodec_find_decoder(codec);
  const std::unique_ptr<AVCodecContext, decltype(freeContext)> context(
      avcodec_alloc_context3(decoder));
  const std::unique_ptr<AVFrame, decltype(freeFrame)> frame(av_frame_alloc());
  const std::unique_ptr<AVPacket, decltype(freePacket)> packet(av_packet_alloc());
  context->thread_count = 1;
  context->err_recognition = AV_EF_EXPLODE;
  if (avcodec_open2(context.get(), decoder, nullptr) < 0 ||
      av_new_packet(packet.get(), static_cast<int>(data.size())) < 0) {
    return {};
  }
  std::copy(data.begin(), data.end(), packet->data);
  if (avcodec_send_packet(context.get(), packet.get()) < 0 ||
      avcodec_receive_frame(context.get(), frame.get()) < 0) {
    return {};
  }
  std::vector<int> picture = {frame->format, frame->width, frame->height};
  const bool is420 = frame->format == AV_PIX_FMT_YUV420P || frame->format == AV_PIX_FMT_YUVJ420P;
  for (int plane = 0; plane < 3; ++plane) {
    const bool chroma = plane > 0;
    const int rows = chroma && is420 ? (frame->height + 1) / 2 : frame->height;
    const int columns = chroma ? (frame->width + 1) / 2 : frame->width;
    for (int y = 0; y < rows; ++y) {
      const std::uint8_t* row = frame->data[plane] + y * frame->linesize[plane];
      picture.insert(picture.end(), row, row + columns);
    }
  }
  return picture;
}

}  // namespace test
