#include "cms/live/media/fisheye/fisheye_lens.h"

#include <algorithm>
#include <cmath>

#include "cms/live/media/fisheye/internal/degree.h"

namespace cms {

FisheyeVector VectorOf(const FisheyeDirection& direction) {
  const double pan = direction.pan * kDegree;
  const double tilt = direction.tilt * kDegree;
  return {std::sin(pan) * std::cos(tilt), std::cos(pan) * std::cos(tilt), std::sin(tilt)};
}

FisheyeDirection DirectionOf(const FisheyeVector& vector) {
  return {std::atan2(vector.x, vector.y) / kDegree,
          std::atan2(vector.z, std::hypot(vector.x, vector.y)) / kDegree};
}

double FisheyeLens::HalfView() const {
  return fieldOfView / 2 * kDegree;
}

FisheyeVector FisheyeLens::ToLens(const FisheyeVector& room) const {
  switch (mount) {
    case FisheyeMount::kWall:
      return {room.x, -room.z, room.y};
    case FisheyeMount::kFloor:
      return {-room.x, -room.y, room.z};
    case FisheyeMount::kCeiling:
      break;
  }
  return {room.x, -room.y, -room.z};
}

FisheyeVector FisheyeLens::ToRoom(const FisheyeVector& lens) const {
  switch (mount) {
    case FisheyeMount::kWall:
      return {lens.x, lens.z, -lens.y};
    case FisheyeMount::kFloor:
      return {-lens.x, -lens.y, lens.z};
    case FisheyeMount::kCeiling:
      break;
  }
  return {lens.x, -lens.y, -lens.z};
}

std::optional<FisheyePoint> FisheyeLens::PointOf(const FisheyeVector& vector) const {
  const FisheyeVector lens = ToLens(vector);
  const double aside = std::hypot(lens.x, lens.y);
  const double angle = std::atan2(aside, lens.z);
  if (angle > HalfView()) {
    return std::nullopt;
  }
  if (aside == 0) {
    return FisheyePoint{circle.x, circle.y};
  }
  const double share = projection == FisheyeProjection::kEquidistant
                           ? angle / HalfView()
                           : std::sin(angle / 2) / std::sin(HalfView() / 2);
  const double scale = circle.radius * share / aside;
  return FisheyePoint{circle.x + scale * lens.x, circle.y + scale * lens.y};
}

std::optional<FisheyeVector> FisheyeLens::VectorOf(const FisheyePoint& point) const {
  const double x = point.x - circle.x;
  const double y = point.y - circle.y;
  const double distance = std::hypot(x, y);
  if (!(distance <= circle.radius)) {
    return std::nullopt;
  }
  if (distance == 0) {
    return ToRoom({0, 0, 1});
  }
  const double share = distance / circle.radius;
  const double angle = projection == FisheyeProjection::kEquidistant
                           ? share * HalfView()
                           : 2 * std::asin(std::min(1.0, share * std::sin(HalfView() / 2)));
  const double scale = std::sin(angle) / distance;
  return ToRoom({scale * x, scale * y, std::cos(angle)});
}

std::optional<FisheyePoint> FisheyeLens::PointOf(const FisheyeDirection& direction) const {
  return PointOf(cms::VectorOf(direction));
}

std::optional<FisheyeDirection> FisheyeLens::DirectionOf(const FisheyePoint& point) const {
  const auto vector = VectorOf(point);
  return vector ? std::optional(cms::DirectionOf(*vector)) : std::nullopt;
}

}  // namespace cms
