// FisheyeTable: for every pixel of a view, where in the camera's picture it comes from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "cms/live/media/fisheye/fisheye_view.h"

namespace cms {

// Of one plane. A plane of colours may have fewer samples than the picture has pixels: 1 of
// 2^right times 2^down.
struct FisheyePlaneSize {
  int width = 0;  // of the camera's plane
  int height = 0;
  int right = 0;
  int down = 0;
};

class FisheyeTable {
 public:
  // Fractions are of this; kOutside in place of a pair says that the lens saw nothing.
  static constexpr int kFractions = 128;
  static constexpr std::uint16_t kOutside = 0xFFFF;

  // `shown`: the size of the view in pixels. The plane is at least 4 wide and 2 high.
  void Build(const FisheyeMap& map, FisheyeMap::Size shown, const FisheyePlaneSize& plane);

  int Width() const { return width_; }
  int Height() const { return height_; }

  // One row: of each sample the upper left of the four that it is between, x in the low 16 bits and
  // y in the high ones, and how far it is from there: to the right in the low 8 bits, down in the
  // high ones. Four bytes from x on are inside the plane in the rows y and y + 1.
  std::span<const std::uint32_t> Places(int row) const { return Row(places_, row); }
  std::span<const std::uint16_t> Fractions(int row) const { return Row(fractions_, row); }

 private:
  struct Ray {
    float x = 0;
    float y = 0;
    float z = 0;
  };

  template <typename Value>
  std::span<const Value> Row(const std::vector<Value>& values, int row) const {
    const auto width = static_cast<std::size_t>(width_);
    return std::span(values).subspan(width * static_cast<std::size_t>(row), width);
  }
  void BuildTile(const FisheyeMap& map, const FisheyeMap::Tile& tile);
  void BuildPlain(const FisheyeMap& map);
  void Put(std::size_t index, bool seen, float x, float y);

  FisheyePlaneSize plane_;
  int width_ = 0;
  int height_ = 0;
  std::vector<std::uint32_t> places_;
  std::vector<std::uint16_t> fractions_;
  std::vector<Ray> columns_;
};

}  // namespace cms
