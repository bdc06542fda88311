#include "cms/live/media/internal/picture_converter.h"

#include <cstring>

extern "C" {
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include "cms/live/media/internal/codec_map.h"
#include "cms/live/media/internal/library_silence.h"

namespace cms {
namespace {

constexpr int kBytesPerPixel = 4;
constexpr int kMaxSide = 16384;

// The scaler writes whole vectors: rows are this many bytes apart, and the last one is followed by
// as many. With tighter rows some of its paths leave the last columns of a picture unwritten.
constexpr std::size_t kRowAlignment = 128;

std::size_t RowBytes(int width) {
  return static_cast<std::size_t>(width) * kBytesPerPixel;
}

std::size_t Stride(int width) {
  return (RowBytes(width) + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
}

}  // namespace

void PictureConverter::AlignedDelete::operator()(unsigned char* memory) const {
  av_free(memory);
}

PictureConverter::~PictureConverter() {
  sws_freeContext(scaler_);
}

bool PictureConverter::Convert(const AVFrame& frame, int width, int height) {
  width_ = height_ = 0;
  const LibrarySilence silence;
  const AVPixelFormat format = PlainFormat(frame.format);
  const AVColorRange range = format != frame.format ? AVCOL_RANGE_JPEG : frame.color_range;
  const Geometry geometry{frame.width, frame.height, format, frame.colorspace,
                          range,       width,        height};
  if (!(geometry == geometry_) && !Prepare(geometry)) {
    return false;
  }
  const std::size_t stride = Stride(width);
  std::uint8_t* const planes[4] = {pixels_.get(), nullptr, nullptr, nullptr};
  const int strides[4] = {static_cast<int>(stride), 0, 0, 0};
  if (sws_scale(scaler_, frame.data, frame.linesize, 0, frame.height, planes, strides) != height) {
    return false;
  }
  CloseRows(height, stride, RowBytes(width));
  width_ = width;
  height_ = height;
  return true;
}

bool PictureConverter::Prepare(const Geometry& geometry) {
  geometry_ = Geometry{};
  sws_freeContext(scaler_);
  scaler_ = nullptr;
  if (geometry.toWidth <= 0 || geometry.toHeight <= 0 || geometry.toWidth > kMaxSide ||
      geometry.toHeight > kMaxSide) {
    return false;
  }
  const std::size_t needed =
      Stride(geometry.toWidth) * static_cast<std::size_t>(geometry.toHeight) + kRowAlignment;
  if (needed > capacity_) {
    pixels_.reset(static_cast<unsigned char*>(av_malloc(needed)));
    capacity_ = pixels_ ? needed : 0;
  }
  scaler_ = sws_getContext(geometry.fromWidth, geometry.fromHeight,
                           static_cast<AVPixelFormat>(geometry.fromFormat), geometry.toWidth,
                           geometry.toHeight, AV_PIX_FMT_BGRA, SWS_FAST_BILINEAR, nullptr, nullptr,
                           nullptr);
  if (!pixels_ || scaler_ == nullptr) {
    return false;
  }
  SetColours(geometry);
  geometry_ = geometry;
  return true;
}

// What the picture does not name stays as the scaler has it: BT.601, limited range, grey full
// range.
void PictureConverter::SetColours(const Geometry& geometry) {
  int* matrix = nullptr;
  int* toMatrix = nullptr;
  int full = 0, toFull = 0, brightness = 0, contrast = 0, saturation = 0;
  if (sws_getColorspaceDetails(scaler_, &matrix, &full, &toMatrix, &toFull, &brightness, &contrast,
                               &saturation) < 0) {
    return;  // pictures that are RGB already
  }
  if (geometry.fromRange != AVCOL_RANGE_UNSPECIFIED) {
    full = geometry.fromRange == AVCOL_RANGE_JPEG ? 1 : 0;
  }
  const int* const named = geometry.fromMatrix == AVCOL_SPC_UNSPECIFIED
                               ? matrix
                               : sws_getCoefficients(geometry.fromMatrix);
  sws_setColorspaceDetails(scaler_, named, full, toMatrix, toFull, brightness, contrast,
                           saturation);
}

void PictureConverter::CloseRows(int height, std::size_t stride, std::size_t rowBytes) {
  if (stride == rowBytes) {
    return;
  }
  for (std::size_t row = 1; row < static_cast<std::size_t>(height); ++row) {
    std::memmove(pixels_.get() + row * rowBytes, pixels_.get() + row * stride, rowBytes);
  }
}

}  // namespace cms
