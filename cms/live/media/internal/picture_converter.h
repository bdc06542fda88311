// Decoded planar pictures become BGRA of a wanted size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

extern "C" {
#include <libavutil/frame.h>
}

struct SwsContext;

namespace cms {

// Colours come out by the matrix (BT.601 when the stream names none) and the range, full or
// limited, that the picture itself names.
//
// Owns the pixels of the last converted picture: rows from top to bottom without gaps, 4 bytes a
// pixel in the order B, G, R, A. Not safe against itself; the owner locks.
class PictureConverter {
 public:
  PictureConverter() = default;
  ~PictureConverter();
  PictureConverter(const PictureConverter&) = delete;
  PictureConverter& operator=(const PictureConverter&) = delete;

  // Scales with fast bilinear. Allocates only when the geometry changes. On failure the pixels are
  // undefined and Width and Height are 0.
  bool Convert(const AVFrame& frame, int width, int height);

  unsigned char* Pixels() const { return width_ > 0 ? pixels_.get() : nullptr; }
  int Width() const { return width_; }
  int Height() const { return height_; }

 private:
  struct Geometry {
    int fromWidth = 0;
    int fromHeight = 0;
    int fromFormat = -1;
    int fromMatrix = 0;  // AVColorSpace
    int fromRange = 0;   // AVColorRange
    int toWidth = 0;
    int toHeight = 0;
    bool operator==(const Geometry&) const = default;
  };
  struct AlignedDelete {
    void operator()(unsigned char* memory) const;
  };

  bool Prepare(const Geometry& geometry);
  void SetColours(const Geometry& geometry);
  void CloseRows(int height, std::size_t stride, std::size_t rowBytes);

  SwsContext* scaler_ = nullptr;
  Geometry geometry_;
  std::unique_ptr<unsigned char, AlignedDelete> pixels_;
  std::size_t capacity_ = 0;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace cms
