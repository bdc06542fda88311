#include "cms/exports/codec_exports.h"

#include <cstring>
#include <memory>
#include <new>
#include <optional>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "cms/live/decoder.h"
#include "cms/live/media/internal/codec_map.h"
#include "cms/live/media/internal/video_codec.h"

namespace {

constexpr std::size_t kPadding = CMSDecoder::kInputPadding;

struct CodecHandle {
  cms::VideoCodec codec;
  std::unique_ptr<unsigned char[]> input;
  std::size_t capacity = 0;

  // The data with readable bytes behind it; null when memory is short.
  const unsigned char* Pad(const unsigned char* data, int length) {
    const std::size_t size = static_cast<std::size_t>(length);
    if (capacity < size + kPadding) {
      input.reset(new (std::nothrow) unsigned char[size + kPadding]);
      capacity = input ? size + kPadding : 0;
    }
    if (input) {
      std::memcpy(input.get(), data, size);
      std::memset(input.get() + size, 0, kPadding);
    }
    return input.get();
  }
};

// The picture given out, and the reference that keeps its planes.
struct HeldPicture : cms::CMSRawPicture {
  AVFrame* frame = nullptr;
  ~HeldPicture() { av_frame_free(&frame); }
};

std::optional<cms::CMS_PICTURE_FORMAT> PictureFormat(int format) {
  switch (cms::PlainFormat(format)) {
    case AV_PIX_FMT_YUV420P:
      return cms::CMS_PICTURE_YUV420P;
    case AV_PIX_FMT_YUV422P:
      return cms::CMS_PICTURE_YUV422P;
    case AV_PIX_FMT_YUV444P:
      return cms::CMS_PICTURE_YUV444P;
    case AV_PIX_FMT_YUV440P:
      return cms::CMS_PICTURE_YUV440P;
    case AV_PIX_FMT_GRAY8:
      return cms::CMS_PICTURE_GRAY;
    default:
      return std::nullopt;
  }
}

// Null when the codec's format is none of ours or memory is short.
cms::CMSRawPicture* Hold(const AVFrame& frame) {
  const std::optional<cms::CMS_PICTURE_FORMAT> format = PictureFormat(frame.format);
  auto held = std::unique_ptr<HeldPicture>(new (std::nothrow) HeldPicture{});
  if (!format || !held) {
    return nullptr;
  }
  held->frame = av_frame_clone(&frame);
  if (held->frame == nullptr) {
    return nullptr;
  }
  held->width = frame.width;
  held->height = frame.height;
  held->format = *format;
  const bool renamed = cms::PlainFormat(frame.format) != frame.format;
  held->fullRange = renamed || frame.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
  for (int plane = 0; plane < (*format == cms::CMS_PICTURE_GRAY ? 1 : 3); ++plane) {
    held->planes[plane] = held->frame->data[plane];
    held->strides[plane] = held->frame->linesize[plane];
  }
  return held.release();
}

CodecHandle* Handle(void* codec) {
  return static_cast<CodecHandle*>(codec);
}

}  // namespace

void* CMS_avcodec_open(int codec) {
  auto handle = std::unique_ptr<CodecHandle>(new (std::nothrow) CodecHandle);
  if (!handle || !handle->codec.Open(static_cast<cms::CMSCodecID>(codec))) {
    return nullptr;
  }
  return handle.release();
}

int CMS_FFMPEG_Decode(void* codec, const unsigned char* data, int length, int* used,
                      cms::CMSRawPicture** picture) {
  if (used != nullptr) {
    *used = 0;
  }
  if (picture == nullptr) {
    return DECODE_RESULT_ERROR;
  }
  *picture = nullptr;
  CodecHandle* handle = Handle(codec);
  if (handle == nullptr || handle->codec.Codec() == cms::CMS_CODEC_NONE || data == nullptr ||
      length <= 0) {
    return DECODE_RESULT_ERROR;
  }
  const unsigned char* padded = handle->Pad(data, length);
  if (padded == nullptr) {
    return DECODE_RESULT_ERROR;
  }
  if (used != nullptr) {
    *used = length;
  }
  switch (handle->codec.Decode(padded, length)) {
    case cms::VideoCodec::Result::kPicture:
      *picture = Hold(handle->codec.Picture());
      handle->codec.ReleasePicture();
      return *picture != nullptr ? DECODE_RESULT_PICTURE : DECODE_RESULT_ERROR;
    case cms::VideoCodec::Result::kNoPicture:
      return DECODE_RESULT_NO_PICTURE;
    case cms::VideoCodec::Result::kError:
      break;
  }
  return DECODE_RESULT_ERROR;
}

void CMS_av_free_frame(cms::CMSRawPicture* picture) {
  delete static_cast<HeldPicture*>(picture);
}

void CMS_FFMPEG_Decode_Buffer_Free(void* codec) {
  if (CodecHandle* handle = Handle(codec)) {
    handle->input.reset();
    handle->capacity = 0;
  }
}

int CMS_avcodec_close(void* codec) {
  CodecHandle* handle = Handle(codec);
  if (handle == nullptr || handle->codec.Codec() == cms::CMS_CODEC_NONE) {
    return 0;
  }
  handle->codec.Close();
  return 1;
}

void CMS_av_free(void* codec) {
  delete Handle(codec);
}
