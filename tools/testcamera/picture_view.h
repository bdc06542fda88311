// Where a camera that can be moved looks: which part of its test picture is sent.
#pragma once

#include <gst/gst.h>

#include <vector>

namespace testcamera {

inline constexpr char kViewName[] = "view";
inline constexpr int kViewFactor = 2;  // the whole picture is so many times as wide and as high

struct PictureDirection {
  double pan = 0;   // -1, left, to 1
  double tilt = 0;  // -1, down, to 1
  double zoom = 0;  // 0 to 1, where a quarter of the width fills the picture
};

// On the thread that serves the clients.
class PictureView {
 public:
  PictureView() = default;
  ~PictureView();
  PictureView(const PictureView&) = delete;
  PictureView& operator=(const PictureView&) = delete;

  // A videocrop in a stream's pipeline, which sends pictures of that size.
  void Add(GstElement* crop, int width, int height);
  void Look(const PictureDirection& direction);

 private:
  struct Crop {
    GWeakRef* element;
    int width;
    int height;
  };

  void Set(GstElement* crop, int width, int height) const;

  PictureDirection direction_;
  std::vector<Crop> crops_;
};

}  // namespace testcamera
