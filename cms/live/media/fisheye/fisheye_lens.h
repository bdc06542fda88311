// FisheyeLens: where a fisheye camera's picture shows what lies in which direction.
//
// Directions are of the room, not of the picture: pan goes from -180 to 180 degrees, growing
// clockwise as seen from above, tilt from -90 (down) to 90 (up). Pan 0 of a camera on a ceiling or
// on a floor is where the top of its picture points, pan 0 and tilt 0 of one on a wall the centre.
// Points are in pixels; whole numbers are the centres of pixels, 0 the leftmost and the topmost.
#pragma once

#include <optional>

#include "cms/runtime/api.h"

namespace cms {

// How the distance from the circle's centre grows with the angle off the lens's axis: by the angle
// itself, or by the sine of its half.
enum class FisheyeProjection { kEquidistant, kEquisolid };

enum class FisheyeMount { kCeiling, kWall, kFloor };

struct FisheyePoint {
  double x = 0;
  double y = 0;
};

struct FisheyeDirection {
  double pan = 0;   // degrees
  double tilt = 0;  // degrees
};

// What the lens shows, in pixels; a part of it may lie outside the picture.
struct FisheyeCircle {
  double x = 0;
  double y = 0;
  double radius = 0;
  bool operator==(const FisheyeCircle&) const = default;
};

// A direction as a vector of length 1; of the room: x to pan 90, y to pan 0, z up; of the lens: x
// to the right of the picture, y to its bottom, z along the axis.
struct FisheyeVector {
  double x = 0;
  double y = 0;
  double z = 0;
};

struct CMS_API FisheyeLens {
  FisheyeProjection projection = FisheyeProjection::kEquidistant;
  FisheyeMount mount = FisheyeMount::kCeiling;
  double fieldOfView = 180;  // degrees, from edge to edge of the circle; 60 to 280 are sensible
  FisheyeCircle circle;

  // The point may lie outside the picture. Nothing for what the lens does not see.
  std::optional<FisheyePoint> PointOf(const FisheyeDirection& direction) const;
  // Nothing outside the circle.
  std::optional<FisheyeDirection> DirectionOf(const FisheyePoint& point) const;

  // The same of vectors of the room.
  std::optional<FisheyePoint> PointOf(const FisheyeVector& vector) const;
  std::optional<FisheyeVector> VectorOf(const FisheyePoint& point) const;

  FisheyeVector ToLens(const FisheyeVector& room) const;
  FisheyeVector ToRoom(const FisheyeVector& lens) const;
  double HalfView() const;  // radians, from the axis to the edge

  bool operator==(const FisheyeLens&) const = default;
};

CMS_API FisheyeVector VectorOf(const FisheyeDirection& direction);
CMS_API FisheyeDirection DirectionOf(const FisheyeVector& vector);

}  // namespace cms
