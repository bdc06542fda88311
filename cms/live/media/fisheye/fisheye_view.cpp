#include "cms/live/media/fisheye/fisheye_view.h"

#include <algorithm>
#include <cmath>

#include "cms/live/media/fisheye/internal/degree.h"

namespace cms {
namespace {

constexpr double kHalfViewAtZoom1 = 45;  // degrees, of a virtual camera
constexpr double kLeastZoom = 0.3;
constexpr double kMostZoom = 20;
// A panorama ends so many degrees before the axis, around which it could only smear a few pixels.
constexpr double kAroundAxis = 20;

FisheyeVector Scaled(const FisheyeVector& vector, double by) {
  return {vector.x * by, vector.y * by, vector.z * by};
}

double Dot(const FisheyeVector& a, const FisheyeVector& b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

double Turn(double degrees) {  // into -180 to 180
  return std::remainder(degrees, 360);
}

FisheyeVector CameraRay(const FisheyeMap::Tile& tile, double x, double y) {
  const double right = x - tile.x - (tile.width - 1) / 2.0;
  const double down = y - tile.y - (tile.height - 1) / 2.0;
  return {tile.forward.x + right * tile.right.x + down * tile.down.x,
          tile.forward.y + right * tile.right.y + down * tile.down.y,
          tile.forward.z + right * tile.right.z + down * tile.down.z};
}

FisheyeDirection StripDirection(const FisheyeMap::Tile& tile, double x, double y) {
  return {Turn(tile.pan + tile.span * ((x - tile.x + 0.5) / tile.width - 0.5)),
          tile.top + (tile.bottom - tile.top) * (y - tile.y + 0.5) / tile.height};
}

std::optional<FisheyePoint> InTile(const FisheyeMap::Tile& tile, const FisheyeVector& seen) {
  FisheyePoint point;
  if (tile.strip) {
    const FisheyeDirection direction = DirectionOf(seen);
    point.x = tile.x - 0.5 + tile.width * (Turn(direction.pan - tile.pan) / tile.span + 0.5);
    point.y = tile.y - 0.5 + tile.height * (direction.tilt - tile.top) / (tile.bottom - tile.top);
  } else {
    const double ahead = Dot(seen, tile.forward);
    if (ahead <= 0) {
      return std::nullopt;
    }
    // `right` and `down` are as long as a pixel is wide at distance 1.
    const double pixel = Dot(tile.right, tile.right) * ahead;
    point.x = tile.x + (tile.width - 1) / 2.0 + Dot(seen, tile.right) / pixel;
    point.y = tile.y + (tile.height - 1) / 2.0 + Dot(seen, tile.down) / pixel;
  }
  const bool inside = point.x >= tile.x - 0.5 && point.x <= tile.x + tile.width - 0.5 &&
                      point.y >= tile.y - 0.5 && point.y <= tile.y + tile.height - 0.5;
  return inside ? std::optional(point) : std::nullopt;
}

}  // namespace

FisheyeView MakeFisheyeView(FisheyeViewKind kind, FisheyeMount mount) {
  FisheyeView view;
  view.kind = kind;
  if (kind < FisheyeViewKind::kOneCamera) {
    return view;
  }
  const int cameras = static_cast<int>(kind) - static_cast<int>(FisheyeViewKind::kOneCamera) + 1;
  for (int i = 0; i < cameras; ++i) {
    FisheyeCamera& camera = view.cameras[static_cast<std::size_t>(i)];
    if (mount == FisheyeMount::kWall) {
      constexpr double kBeside = 60;
      camera.pan = kBeside * (i - (cameras - 1) / 2.0);
    } else {
      camera.pan = Turn(360.0 * i / cameras);
      camera.tilt = mount == FisheyeMount::kCeiling ? -45 : 45;
    }
  }
  return view;
}

FisheyeMap::FisheyeMap(const FisheyeLens& lens, const FisheyeView& view, Size source, Size shown)
    : lens_(lens), source_(source), shown_(shown) {
  // Parts begin at even pixels: colours are shared by two.
  const int halfWidth = shown.width / 4 * 2;
  const int halfHeight = shown.height / 4 * 2;
  const int restWidth = shown.width - halfWidth;
  const int restHeight = shown.height - halfHeight;
  const double pan = view.cameras[0].pan;
  const bool wall = lens.mount == FisheyeMount::kWall;
  const double around = wall ? std::min(lens.fieldOfView, 360.0) : 360;
  switch (view.kind) {
    case FisheyeViewKind::kOriginal:
      break;
    case FisheyeViewKind::kPanorama:
      AddStrip(pan, around, 0, shown.height);
      break;
    case FisheyeViewKind::kDoublePanorama:
      AddStrip(pan - around / 4, around / 2, 0, halfHeight);
      AddStrip(pan + around / 4, around / 2, halfHeight, restHeight);
      break;
    case FisheyeViewKind::kWallPanorama:
      AddStrip(pan, wall ? around : 180, 0, shown.height);
      break;
    case FisheyeViewKind::kOneCamera:
      AddCamera(view.cameras[0], 0, 0, shown.width, shown.height);
      break;
    case FisheyeViewKind::kTwoCameras:
      AddCamera(view.cameras[0], 0, 0, halfWidth, shown.height);
      AddCamera(view.cameras[1], halfWidth, 0, restWidth, shown.height);
      break;
    case FisheyeViewKind::kThreeCameras:
      AddCamera(view.cameras[0], 0, 0, shown.width, halfHeight);
      AddCamera(view.cameras[1], 0, halfHeight, halfWidth, restHeight);
      AddCamera(view.cameras[2], halfWidth, halfHeight, restWidth, restHeight);
      break;
    case FisheyeViewKind::kFourCameras:
      AddCamera(view.cameras[0], 0, 0, halfWidth, halfHeight);
      AddCamera(view.cameras[1], halfWidth, 0, restWidth, halfHeight);
      AddCamera(view.cameras[2], 0, halfHeight, halfWidth, restHeight);
      AddCamera(view.cameras[3], halfWidth, halfHeight, restWidth, restHeight);
      break;
  }
}

void FisheyeMap::AddCamera(const FisheyeCamera& camera, int x, int y, int width, int height) {
  Tile tile;
  tile.x = x;
  tile.y = y;
  tile.width = width;
  tile.height = height;
  tile.camera = tileCount_;
  const double zoom = std::clamp(camera.zoom, kLeastZoom, kMostZoom);
  const double pixel = 2 * std::tan(kHalfViewAtZoom1 * kDegree) / zoom / std::max(width, 1);
  const double pan = camera.pan * kDegree;
  const double tilt = camera.tilt * kDegree;
  tile.forward = VectorOf({camera.pan, camera.tilt});
  tile.right = Scaled({std::cos(pan), -std::sin(pan), 0}, pixel);
  tile.down = Scaled(
      {std::sin(pan) * std::sin(tilt), std::cos(pan) * std::sin(tilt), -std::cos(tilt)}, pixel);
  tiles_[tileCount_++] = tile;
}

void FisheyeMap::AddStrip(double pan, double span, int y, int height) {
  Tile tile;
  tile.y = y;
  tile.width = shown_.width;
  tile.height = height;
  tile.strip = true;
  tile.pan = pan;
  tile.span = span;
  const double edge = lens_.fieldOfView / 2;
  switch (lens_.mount) {
    case FisheyeMount::kCeiling:
      tile.top = edge - 90;
      tile.bottom = kAroundAxis - 90;
      break;
    case FisheyeMount::kFloor:
      tile.top = 90 - kAroundAxis;
      tile.bottom = 90 - edge;
      break;
    case FisheyeMount::kWall:  // a degree is as high as it is wide
      tile.top = std::min(span * height / std::max(shown_.width, 1) / 2, std::min(edge, 90.0));
      tile.bottom = -tile.top;
      break;
  }
  tiles_[tileCount_++] = tile;
}

const FisheyeMap::Tile* FisheyeMap::TileAt(const FisheyePoint& inView) const {
  for (const Tile& tile : Tiles()) {
    if (inView.x >= tile.x - 0.5 && inView.x < tile.x + tile.width - 0.5 &&
        inView.y >= tile.y - 0.5 && inView.y < tile.y + tile.height - 0.5) {
      return &tile;
    }
  }
  return nullptr;
}

std::optional<FisheyePoint> FisheyeMap::ToSource(const FisheyePoint& inView) const {
  if (tileCount_ == 0) {
    const bool inside = inView.x >= -0.5 && inView.x < shown_.width - 0.5 && inView.y >= -0.5 &&
                        inView.y < shown_.height - 0.5;
    return inside ? std::optional(
                        FisheyePoint{(inView.x + 0.5) * source_.width / shown_.width - 0.5,
                                     (inView.y + 0.5) * source_.height / shown_.height - 0.5})
                  : std::nullopt;
  }
  const Tile* const tile = TileAt(inView);
  if (tile == nullptr) {
    return std::nullopt;
  }
  return tile->strip ? lens_.PointOf(StripDirection(*tile, inView.x, inView.y))
                     : lens_.PointOf(CameraRay(*tile, inView.x, inView.y));
}

std::optional<FisheyePoint> FisheyeMap::ToView(const FisheyePoint& inSource) const {
  if (tileCount_ == 0) {
    if (source_.width < 1 || source_.height < 1) {
      return std::nullopt;
    }
    return FisheyePoint{(inSource.x + 0.5) * shown_.width / source_.width - 0.5,
                        (inSource.y + 0.5) * shown_.height / source_.height - 0.5};
  }
  const auto seen = lens_.VectorOf(inSource);
  for (const Tile& tile : Tiles()) {
    if (const auto point = seen ? InTile(tile, *seen) : std::nullopt) {
      return point;
    }
  }
  return std::nullopt;
}

std::optional<FisheyeDirection> FisheyeMap::DirectionAt(const FisheyePoint& inView) const {
  if (tileCount_ == 0) {
    const auto point = ToSource(inView);
    return point ? lens_.DirectionOf(*point) : std::nullopt;
  }
  const Tile* const tile = TileAt(inView);
  if (tile == nullptr) {
    return std::nullopt;
  }
  return tile->strip ? StripDirection(*tile, inView.x, inView.y)
                     : DirectionOf(CameraRay(*tile, inView.x, inView.y));
}

std::optional<std::size_t> FisheyeMap::CameraAt(const FisheyePoint& inView) const {
  const Tile* const tile = TileAt(inView);
  return tile != nullptr && !tile->strip ? std::optional(tile->camera) : std::nullopt;
}

}  // namespace cms
