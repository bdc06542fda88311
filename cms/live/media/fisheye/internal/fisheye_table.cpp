#include "cms/live/media/fisheye/internal/fisheye_table.h"

#include <algorithm>
#include <cmath>

#include "cms/live/media/fisheye/internal/degree.h"

namespace cms {
namespace {

// What a sample of a plane stands for, in pixels of the picture: the middle of those it is shared
// by.
double InPicture(int sample, int shift) {
  return sample * static_cast<double>(1 << shift) + ((1 << shift) - 1) / 2.0;
}

int Samples(int pixels, int shift) {
  return (pixels + (1 << shift) - 1) >> shift;
}

// From the direction of a ray, in the lens's frame and of any length, to the distance from the
// circle's centre for each unit aside.
class Projection {
 public:
  explicit Projection(const FisheyeLens& lens)
      : equidistant_(lens.projection == FisheyeProjection::kEquidistant),
        half_(static_cast<float>(lens.HalfView())),
        cosine_(std::cos(half_)),
        perAngle_(static_cast<float>(lens.circle.radius / lens.HalfView())),
        perSine_(static_cast<float>(lens.circle.radius / std::sin(lens.HalfView() / 2))) {}

  // False when the lens does not see it.
  bool Scale(float x, float y, float z, float* scale) const {
    const float aside = std::sqrt(x * x + y * y);
    if (equidistant_) {
      const float angle = std::atan2(aside, z);
      *scale = aside > 0 ? perAngle_ * angle / aside : 0;
      return angle <= half_;
    }
    const float cosine = z / std::sqrt(x * x + y * y + z * z);
    *scale = aside > 0 ? perSine_ * std::sqrt(std::max(0.0F, (1 - cosine) / 2)) / aside : 0;
    return cosine >= cosine_;
  }

 private:
  bool equidistant_;
  float half_;
  float cosine_;
  float perAngle_;
  float perSine_;
};

}  // namespace

void FisheyeTable::Build(const FisheyeMap& map, FisheyeMap::Size shown,
                         const FisheyePlaneSize& plane) {
  plane_ = plane;
  width_ = Samples(shown.width, plane.right);
  height_ = Samples(shown.height, plane.down);
  const std::size_t count = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  places_.assign(count, 0);
  fractions_.assign(count, kOutside);
  if (map.Tiles().empty()) {
    BuildPlain(map);
  }
  for (const FisheyeMap::Tile& tile : map.Tiles()) {
    BuildTile(map, tile);
  }
}

void FisheyeTable::BuildPlain(const FisheyeMap& map) {
  std::size_t index = 0;
  for (int row = 0; row < height_; ++row) {
    for (int column = 0; column < width_; ++column, ++index) {
      const auto point =
          map.ToSource({InPicture(column, plane_.right), InPicture(row, plane_.down)});
      Put(index, point.has_value(), point ? static_cast<float>(point->x) : 0,
          point ? static_cast<float>(point->y) : 0);
    }
  }
}

// Every ray of a tile is a part that its row gives, and one that its column gives, so that a pixel
// costs little more than its projection.
void FisheyeTable::BuildTile(const FisheyeMap& map, const FisheyeMap::Tile& tile) {
  const FisheyeLens& lens = map.Lens();
  const Projection projection(lens);
  const auto ray = [&lens](const FisheyeVector& room) {
    const FisheyeVector vector = lens.ToLens(room);
    return Ray{static_cast<float>(vector.x), static_cast<float>(vector.y),
               static_cast<float>(vector.z)};
  };
  const int left = tile.x >> plane_.right;
  const int right = Samples(tile.x + tile.width, plane_.right);
  columns_.clear();
  for (int column = left; column < right; ++column) {
    const double x = InPicture(column, plane_.right) - tile.x;
    if (tile.strip) {
      const double pan = (tile.pan + tile.span * ((x + 0.5) / tile.width - 0.5)) * kDegree;
      columns_.push_back(ray({std::sin(pan), std::cos(pan), 0}));
    } else {
      const double aside = x - (tile.width - 1) / 2.0;
      columns_.push_back(ray({tile.right.x * aside, tile.right.y * aside, tile.right.z * aside}));
    }
  }
  const Ray up = ray({0, 0, 1});
  const Ray forward = ray(tile.forward);
  const Ray down = ray(tile.down);
  for (int row = tile.y >> plane_.down; row < Samples(tile.y + tile.height, plane_.down); ++row) {
    const double y = InPicture(row, plane_.down) - tile.y;
    Ray base;
    float share = 1;
    if (tile.strip) {
      const double tilt = (tile.top + (tile.bottom - tile.top) * (y + 0.5) / tile.height) * kDegree;
      const auto sine = static_cast<float>(std::sin(tilt));
      base = {up.x * sine, up.y * sine, up.z * sine};
      share = static_cast<float>(std::cos(tilt));
    } else {
      const auto below = static_cast<float>(y - (tile.height - 1) / 2.0);
      base = {forward.x + down.x * below, forward.y + down.y * below, forward.z + down.z * below};
    }
    std::size_t index = static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                        static_cast<std::size_t>(left);
    for (const Ray& column : columns_) {
      const float x = base.x + share * column.x;
      const float z = base.z + share * column.z;
      const float across = base.y + share * column.y;
      float scale = 0;
      const bool seen = projection.Scale(x, across, z, &scale);
      Put(index++, seen, static_cast<float>(lens.circle.x) + scale * x,
          static_cast<float>(lens.circle.y) + scale * across);
    }
  }
}

// x and y are pixels of the picture.
void FisheyeTable::Put(std::size_t index, bool seen, float x, float y) {
  const auto inPlane = [](float pixel, int shift) {
    return (pixel - static_cast<float>((1 << shift) - 1) / 2) / static_cast<float>(1 << shift);
  };
  x = inPlane(x, plane_.right);
  y = inPlane(y, plane_.down);
  const auto lastX = static_cast<float>(plane_.width - 1);
  const auto lastY = static_cast<float>(plane_.height - 1);
  if (!(seen && x >= -0.5F && x <= lastX + 0.5F && y >= -0.5F && y <= lastY + 0.5F)) {
    places_[index] = 0;
    fractions_[index] = kOutside;
    return;
  }
  // The nearest, as neither is negative; lround takes longer than all else here.
  constexpr float kHalf = 0.5F;
  const int fixedX = static_cast<int>(std::clamp(x, 0.0F, lastX) * kFractions + kHalf);
  const int fixedY = static_cast<int>(std::clamp(y, 0.0F, lastY) * kFractions + kHalf);
  const int row = std::min(fixedY / kFractions, plane_.height - 2);
  // In the last row four bytes are read from `column` on: the corner is a few pixels narrower.
  const int last = row == plane_.height - 2 ? plane_.width - 4 : plane_.width - 2;
  const int column = std::min(fixedX / kFractions, last);
  const int toRight = std::min(fixedX - column * kFractions, kFractions);
  const int toBottom = fixedY - row * kFractions;
  places_[index] = static_cast<std::uint32_t>(row) << 16 | static_cast<std::uint32_t>(column);
  fractions_[index] = static_cast<std::uint16_t>(toBottom << 8 | toRight);
}

}  // namespace cms
