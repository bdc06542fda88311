#include "cms/live/media/internal/fisheye_picture.h"

#include <span>

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include "cms/live/media/fisheye/fisheye_circle.h"
#include "cms/live/media/internal/codec_map.h"
#include "cms/live/media/internal/library_silence.h"

namespace cms {
namespace {

constexpr unsigned kPicturesBetweenSearches = 50;  // while a circle is not found
constexpr int kPlaneAlignment = 64;
constexpr std::uint8_t kNoColour = 128;

const AVPixFmtDescriptor& Description(int format) {
  return *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
}

bool IsPlanarOf8Bits(const AVFrame& picture) {
  const AVPixFmtDescriptor* const format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture.format));
  if (format == nullptr || (format->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_ALPHA |
                                             AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL)) != 0) {
    return false;
  }
  const bool planes = format->nb_components == 1 ||
                      (format->nb_components == 3 &&
                       av_pix_fmt_count_planes(static_cast<AVPixelFormat>(picture.format)) == 3);
  bool downwards = true;
  for (int i = 0; i < format->nb_components; ++i) {
    downwards = downwards && picture.linesize[i] > 0;
  }
  return planes && downwards && format->comp[0].depth == 8 && format->comp[0].step == 1 &&
         format->log2_chroma_w <= 1 && format->log2_chroma_h <= 1;
}

// A picture's memory of a size and format; what it had stays when it is the same.
bool Provide(AVFrame* frame, int width, int height, int format) {
  if (frame == nullptr) {
    return false;
  }
  if (frame->width == width && frame->height == height && frame->format == format &&
      frame->data[0] != nullptr) {
    return true;
  }
  av_frame_unref(frame);
  frame->width = width;
  frame->height = height;
  frame->format = format;
  return av_frame_get_buffer(frame, kPlaneAlignment) == 0;
}

void CopyColours(const AVFrame& from, AVFrame* to) {
  to->colorspace = from.colorspace;
  to->color_range = from.color_range;
}

}  // namespace

bool IsFullRange(const AVFrame& picture) {
  return PlainFormat(picture.format) != picture.format || picture.color_range == AVCOL_RANGE_JPEG;
}

FisheyePicture::FisheyePicture() : planar_(av_frame_alloc()), view_(av_frame_alloc()) {}

FisheyePicture::~FisheyePicture() {
  sws_freeContext(scaler_);
}

const AVFrame* FisheyePicture::Look(const AVFrame& picture, int width, int height) {
  if (!settings_.Dewarps()) {
    return &picture;
  }
  const LibrarySilence silence;
  const AVFrame* const planar = IsPlanarOf8Bits(picture) ? &picture : In420(picture);
  if (planar == nullptr || width > FisheyeDewarper::kLargestSide ||
      height > FisheyeDewarper::kLargestSide) {
    return nullptr;
  }
  const AVPixFmtDescriptor& format = Description(planar->format);
  FisheyeJob job;
  job.lens = settings_.Lens();
  job.view = settings_.View();
  job.source = {planar->width, planar->height};
  job.shown = {width, height};
  job.chromaRight = format.log2_chroma_w;
  job.chromaDown = format.log2_chroma_h;
  if (job.lens.circle.radius <= 0) {
    job.lens.circle = Circle(*planar);
  }
  if (!dewarper_.Prepare(job) || !Provide(view_.get(), width, height, planar->format)) {
    return nullptr;
  }
  CopyColours(*planar, view_.get());
  return Dewarp(*planar) ? view_.get() : nullptr;
}

const AVFrame* FisheyePicture::In420(const AVFrame& picture) {
  constexpr AVPixelFormat kPlanar = AV_PIX_FMT_YUV420P;
  if (PlainFormat(picture.format) == kPlanar) {
    return &picture;
  }
  scaler_ = sws_getCachedContext(scaler_, picture.width, picture.height,
                                 PlainFormat(picture.format), picture.width, picture.height,
                                 kPlanar, SWS_POINT, nullptr, nullptr, nullptr);
  if (scaler_ == nullptr || !Provide(planar_.get(), picture.width, picture.height, kPlanar) ||
      sws_scale(scaler_, picture.data, picture.linesize, 0, picture.height, planar_->data,
                planar_->linesize) != picture.height) {
    return nullptr;
  }
  CopyColours(picture, planar_.get());
  planar_->color_range = IsFullRange(picture) ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  return planar_.get();
}

FisheyeCircle FisheyePicture::Circle(const AVFrame& planar) {
  const FisheyeMap::Size size{planar.width, planar.height};
  if (!(size == foundIn_)) {
    found_.reset();
    foundIn_ = size;
    untilNextSearch_ = 0;
  }
  if (!found_ && untilNextSearch_-- == 0) {
    untilNextSearch_ = kPicturesBetweenSearches;
    const auto stride = static_cast<std::size_t>(planar.linesize[0]);
    const std::size_t bytes = stride * static_cast<std::size_t>(planar.height - 1) +
                              static_cast<std::size_t>(planar.width);
    found_ = FindFisheyeCircle({planar.data[0], bytes}, stride, planar.width, planar.height);
  }
  return found_.value_or(InnerCircle(planar.width, planar.height));
}

bool FisheyePicture::Dewarp(const AVFrame& planar) {
  const AVPixFmtDescriptor& format = Description(planar.format);
  const bool full = IsFullRange(planar);
  constexpr std::uint8_t kFullBlack = 0, kLimitedBlack = 16;
  bool done = true;
  for (int i = 0; i < format.nb_components; ++i) {
    const int down = i == 0 ? 0 : format.log2_chroma_h;
    const auto bytes = [down, i](const AVFrame& frame) {
      const int rows = (frame.height + (1 << down) - 1) >> down;
      return static_cast<std::size_t>(frame.linesize[i]) * static_cast<std::size_t>(rows);
    };
    done = done && dewarper_.Dewarp(i == 0 ? FisheyePlane::kLuma : FisheyePlane::kChroma,
                                    {planar.data[i], bytes(planar)},
                                    static_cast<std::size_t>(planar.linesize[i]),
                                    {view_->data[i], bytes(*view_)},
                                    static_cast<std::size_t>(view_->linesize[i]),
                                    i != 0 ? kNoColour
                                    : full ? kFullBlack
                                           : kLimitedBlack);
  }
  return done;
}

}  // namespace cms
