// FisheyePicture: decoded pictures of a fisheye camera as they are looked at.
#pragma once

#include <memory>
#include <optional>

extern "C" {
#include <libavutil/frame.h>
}

#include "cms/live/media/fisheye.h"
#include "cms/live/media/fisheye/fisheye_dewarper.h"

struct SwsContext;

namespace cms {

// Pictures stay planar: three planes are dewarped, of which two are small, in place of four bytes a
// pixel of the larger picture before. What is no planar picture of 8 bits is made one first.
// Nothing is allocated while sizes and settings stay. Not safe against itself.
class FisheyePicture {
 public:
  FisheyePicture();
  ~FisheyePicture();
  FisheyePicture(const FisheyePicture&) = delete;
  FisheyePicture& operator=(const FisheyePicture&) = delete;

  void Set(const FisheyeSettings& settings) { settings_ = settings; }

  // What is to be shown of the picture: itself when nothing is to be dewarped, else a view of the
  // given size, valid until the next call. Null when that cannot be made.
  const AVFrame* Look(const AVFrame& picture, int width, int height);
  // The same picture as 4:2:0 of 8 bits: itself, or valid until the next call. Null when it cannot
  // be made.
  const AVFrame* In420(const AVFrame& picture);

 private:
  struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };
  using Frame = std::unique_ptr<AVFrame, FreeFrame>;

  FisheyeCircle Circle(const AVFrame& planar);
  bool Dewarp(const AVFrame& planar);

  FisheyeSettings settings_;
  FisheyeDewarper dewarper_;
  Frame planar_;  // of pictures that are not 4:2:0
  Frame view_;
  SwsContext* scaler_ = nullptr;
  std::optional<FisheyeCircle> found_;
  FisheyeMap::Size foundIn_;
  unsigned untilNextSearch_ = 0;  // pictures
};

// Samples from 0 to 255, as JPEGs have them.
bool IsFullRange(const AVFrame& picture);

}  // namespace cms
