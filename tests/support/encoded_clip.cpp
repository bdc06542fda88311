#include "tests/support/encoded_clip.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

// libx265 leaves some of what avcodec_open2 made it allocate behind.
extern "C" const char* __lsan_default_suppressions();   // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libx265";
}

namespace test {
namespace {

// The code is a row of 16 black or white blocks at the top left, highest bit first: 12 bits of the
// number and 4 check bits.
constexpr int kBits = 16;

int BlockSize(int codedWidth) {
  return std::min(16, codedWidth / kBits);
}

unsigned CodeWord(unsigned number) {
  number &= 0xFFF;
  const unsigned check = (number ^ (number >> 4) ^ (number >> 8) ^ 0x5) & 0xF;
  return number << 4 | check;
}

struct ContextDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Context = std::unique_ptr<AVCodecContext, ContextDeleter>;
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;

void Check(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(std::string("EncodeClip: ") + what + " failed");
  }
}

Context OpenEncoder(const ClipSpec& spec) {
  const char* name = spec.codec == ClipCodec::kH264    ? "libx264"
                     : spec.codec == ClipCodec::kH265  ? "libx265"
                     : spec.codec == ClipCodec::kMjpeg ? "mjpeg"
                                                       : "mpeg4";
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  Context context(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
  if (!context) {
    throw std::runtime_error(std::string("EncodeClip: no encoder ") + name);
  }
  context->width = spec.width;
  context->height = spec.height;
  context->time_base = {1, spec.fps};
  context->framerate = {spec.fps, 1};
  context->gop_size = spec.gop;
  context->max_b_frames = spec.bframes;
  context->thread_count = 1;
  context->pix_fmt = AV_PIX_FMT_YUV420P;
  context->flags |= AV_CODEC_FLAG_BITEXACT;
  if (spec.bitrate > 0) {
    context->bit_rate = spec.bitrate;
  } else if (spec.codec == ClipCodec::kMjpeg || spec.codec == ClipCodec::kMpeg4) {
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = 4 * FF_QP2LAMBDA;
  }
  if (spec.bframes > 0 && !spec.openGroups) {
    context->flags |= AV_CODEC_FLAG_CLOSED_GOP;
  }
  AVDictionary* options = nullptr;
  if (spec.codec == ClipCodec::kMpeg4) {
    av_dict_set(&options, "sc_threshold", "1000000000", 0);  // closed groups ask for it
  }
  if (spec.codec == ClipCodec::kH264) {
    context->keyint_min = spec.gop;
    av_dict_set(&options, "preset", "superfast", 0);
    if (spec.bframes == 0) {
      av_dict_set(&options, "tune", "zerolatency", 0);
    }
    av_dict_set(&options, "profile", spec.profile == ClipProfile::kHigh ? "high" : "baseline", 0);
    const std::string extra =
        std::string("scenecut=0:b-adapt=0:sliced-threads=0:aud=") + (spec.delimiters ? "1" : "0") +
        ":slices=" + std::to_string(spec.slices) + (spec.openGroups ? ":open-gop=1" : "");
    av_dict_set(&options, "x264-params", extra.c_str(), 0);
  } else if (spec.codec == ClipCodec::kH265) {
    av_dict_set(&options, "preset", "ultrafast", 0);
    const std::string extra =
        "log-level=error:info=0:scenecut=0:pools=1:frame-threads=1:aud=" +
        std::string(spec.delimiters ? "1" : "0") + ":slices=" + std::to_string(spec.slices) +
        ":min-keyint=" + std::to_string(spec.gop) + ":open-gop=" + (spec.openGroups ? "1" : "0");
    av_dict_set(&options, "x265-params", extra.c_str(), 0);
  } else if (spec.codec == ClipCodec::kMjpeg) {
    context->pix_fmt = AV_PIX_FMT_YUVJ420P;
    context->color_range = AVCOL_RANGE_JPEG;
    av_dict_set(&options, "huffman", "default", 0);
    av_dict_set(&options, "force_duplicated_matrix", "1", 0);
  }
  const int opened = avcodec_open2(context.get(), codec, &options);
  av_dict_free(&options);
  Check(opened, "avcodec_open2");
  return context;
}

void PaintCode(AVFrame& frame, int number) {
  const unsigned code = CodeWord(static_cast<unsigned>(number));
  const int block = BlockSize(frame.width);
  for (int y = 0; y < block; ++y) {
    std::uint8_t* row = frame.data[0] + y * frame.linesize[0];
    for (int bit = 0; bit < kBits; ++bit) {
      const bool white = (code >> (kBits - 1 - bit) & 1) != 0;
      std::fill_n(row + bit * block, block, static_cast<std::uint8_t>(white ? 235 : 16));
    }
  }
  for (int plane = 1; plane < 3; ++plane) {
    for (int y = 0; y < (block + 1) / 2; ++y) {
      std::fill_n(frame.data[plane] + y * frame.linesize[plane], block * kBits / 2,
                  std::uint8_t{128});
    }
  }
}

// A gradient that moves, so that every picture differs, with slowly turning colours.
void Paint(AVFrame& frame, int number, bool noise) {
  std::uint32_t random = 0x9E3779B9U * static_cast<std::uint32_t>(number + 1);
  for (int y = 0; y < frame.height; ++y) {
    std::uint8_t* row = frame.data[0] + y * frame.linesize[0];
    for (int x = 0; x < frame.width; ++x) {
      int luma = 16 + (x + y + number * 3) % 220;
      if (noise) {
        random = random * 1664525U + 1013904223U;
        luma = std::clamp(luma + static_cast<int>(random >> 26) - 32, 16, 235);
      }
      row[x] = static_cast<std::uint8_t>(luma);
    }
  }
  for (int y = 0; y < frame.height / 2; ++y) {
    for (int x = 0; x < frame.width / 2; ++x) {
      frame.data[1][y * frame.linesize[1] + x] =
          static_cast<std::uint8_t>(64 + (y + number * 2) % 128);
      frame.data[2][y * frame.linesize[2] + x] = static_cast<std::uint8_t>(64 + (x + number) % 128);
    }
  }
  PaintCode(frame, number);
}

void Collect(AVCodecContext& context, AVPacket& packet, std::vector<EncodedFrame>& out) {
  while (avcodec_receive_packet(&context, &packet) == 0) {
    EncodedFrame frame;
    frame.data.assign(packet.data, packet.data + packet.size);
    frame.key = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    frame.pts = packet.pts;
    out.push_back(std::move(frame));
    av_packet_unref(&packet);
  }
}

}  // namespace

std::vector<EncodedFrame> EncodeClip(const ClipSpec& spec) {
  av_log_set_level(AV_LOG_ERROR);
  const Context context = OpenEncoder(spec);
  const Frame frame(av_frame_alloc());
  const Packet packet(av_packet_alloc());
  frame->format = context->pix_fmt;
  frame->width = spec.width;
  frame->height = spec.height;
  Check(av_frame_get_buffer(frame.get(), 0), "av_frame_get_buffer");
  std::vector<EncodedFrame> out;
  for (int number = 0; number < spec.frames; ++number) {
    Check(av_frame_make_writable(frame.get()), "av_frame_make_writable");
    Paint(*frame, number, spec.noise);
    frame->pts = number;
    if (spec.bitrate <= 0) {
      frame->quality = context->global_quality;
    }
    Check(avcodec_send_frame(context.get(), frame.get()), "avcodec_send_frame");
    Collect(*context, *packet, out);
  }
  Check(avcodec_send_frame(context.get(), nullptr), "avcodec_send_frame");
  Collect(*context, *packet, out);
  return out;
}

int ReadFrameNumber(const std::uint8_t* bgra, int width, int height, int stride, int codedWidth) {
  const double scale = static_cast<double>(width) / codedWidth;
  const double block = BlockSize(codedWidth) * scale;
  const int y = std::min(height - 1, static_cast<int>(block / 2));
  unsigned code = 0;
  for (int bit = 0; bit < kBits; ++bit) {
    const int x = std::min(width - 1, static_cast<int>((bit + 0.5) * block));
    const std::uint8_t green = bgra[y * stride + x * 4 + 1];
    code = code << 1 | (green >= 128 ? 1U : 0U);
  }
  return CodeWord(code >> 4) == code ? static_cast<int>(code >> 4) : -1;
}

}  // namespace test
