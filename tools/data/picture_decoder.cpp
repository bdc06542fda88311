#include "tools/data/picture_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "cms/runtime/file_io.h"
#include "tools/data/clip_codec.h"
#include "tools/serve/jpeg_encoder.h"

namespace tools {
namespace {

struct Free {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
using Context = std::unique_ptr<AVCodecContext, Free>;
using Packet = std::unique_ptr<AVPacket, Free>;
using Frame = std::unique_ptr<AVFrame, Free>;

}  // namespace

struct PictureDecoder::State {
  Context context;
  Packet packet{av_packet_alloc()};
  Frame picture{av_frame_alloc()};
  bool hasPicture = false;

  void Send(const AVPacket* sent) {
    if (context == nullptr || avcodec_send_packet(context.get(), sent) < 0) {
      return;
    }
    const Frame next(av_frame_alloc());
    while (avcodec_receive_frame(context.get(), next.get()) == 0) {
      av_frame_unref(picture.get());
      av_frame_move_ref(picture.get(), next.get());
      hasPicture = true;
    }
  }
};

PictureDecoder::PictureDecoder(ClipVideo video) : state_(std::make_unique<State>()) {
  state_->context.reset(avcodec_alloc_context3(avcodec_find_decoder(CodecOf(video))));
  state_->context->thread_count = 1;
  if (avcodec_open2(state_->context.get(), nullptr, nullptr) < 0) {
    state_->context.reset();
  }
}

PictureDecoder::~PictureDecoder() = default;

void PictureDecoder::Decode(std::span<const std::uint8_t> frame) {
  state_->packet->data = const_cast<std::uint8_t*>(frame.data());
  state_->packet->size = static_cast<int>(frame.size());
  state_->Send(state_->packet.get());
}

void PictureDecoder::End() {
  state_->Send(nullptr);
}

bool PictureDecoder::HasPicture() const {
  return state_->hasPicture;
}

int PictureDecoder::Width() const {
  return state_->picture->width;
}

int PictureDecoder::Height() const {
  return state_->picture->height;
}

int PictureDecoder::ChromaFormat() const {
  const AVPixFmtDescriptor* format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(state_->picture->format));
  return format == nullptr           ? 1
         : format->nb_components < 3 ? 0
                                     : 3 - format->log2_chroma_w - format->log2_chroma_h;
}

int PictureDecoder::BitDepth() const {
  const AVPixFmtDescriptor* format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(state_->picture->format));
  return format == nullptr ? 8 : format->comp[0].depth;
}

int PictureDecoder::Reordering() const {
  return state_->context->has_b_frames;
}

std::string PictureDecoder::Jpeg() const {
  const AVFrame& picture = *state_->picture;
  const std::unique_ptr<SwsContext, Free> scaler(sws_getContext(
      picture.width, picture.height, static_cast<AVPixelFormat>(picture.format), picture.width,
      picture.height, AV_PIX_FMT_BGRA, SWS_BICUBIC, nullptr, nullptr, nullptr));
  if (!scaler) {
    throw std::runtime_error("its pictures are of a kind that cannot be converted");
  }
  const int stride = 4 * picture.width;
  std::vector<unsigned char> bgra(static_cast<std::size_t>(stride) *
                                  static_cast<std::size_t>(picture.height));
  unsigned char* const rows = bgra.data();
  sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, &rows, &stride);
  return JpegEncoder().Encode(bgra.data(), picture.width, picture.height);
}

void WriteBeside(const std::string& path, std::string_view bytes) {
  auto& io = cms::SystemFileIo();
  const std::string part = path + ".part";
  cms::ScopedFile file(io, part, cms::kFileWrite | cms::kFileCreate | cms::kFileTruncate);
  if (!file) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  const bool written = io.WriteAll(file.Handle(), bytes.data(), bytes.size()) == bytes.size();
  if (!written || !file.Close() || io.Rename(part, path) != 0) {
    const int error = errno;
    io.Remove(part);
    throw std::runtime_error(path + ": " + std::strerror(error));
  }
}

}  // namespace tools
