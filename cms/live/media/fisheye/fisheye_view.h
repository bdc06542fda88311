// FisheyeView: how a fisheye camera's picture is looked at, and FisheyeMap, which tells for every
// point of such a view what it shows of the camera's picture, and the other way round.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/live/media/fisheye/fisheye_lens.h"
#include "cms/runtime/api.h"

namespace cms {

// The numbers are those of view modes wherever one is set by its number.
enum class FisheyeViewKind : std::uint8_t {
  kOriginal = 0,        // the camera's picture, only scaled
  kPanorama = 1,        // all around, unrolled; of a camera on a wall what kWallPanorama shows
  kDoublePanorama = 2,  // the same, its left half above its right one
  kWallPanorama = 3,    // from the left edge of the lens to the right one, upright; of a camera on
                        // a ceiling or a floor the half of the panorama around the first pan
  kOneCamera = 4,       // looks as a camera there would, straight lines straight
  kTwoCameras = 5,      // side by side
  kThreeCameras = 6,    // one above two
  kFourCameras = 7,     // two above two
};
inline constexpr int kFisheyeViewKinds = 8;

// Zoom 1 shows 90 degrees from left to right; at 2 everything is twice as large.
struct FisheyeCamera {
  double pan = 0;   // degrees, of the room
  double tilt = 0;  // degrees
  double zoom = 1;  // kept between 0.3 and 20
  bool operator==(const FisheyeCamera&) const = default;
};

struct FisheyeView {
  static constexpr std::size_t kMostCameras = 4;

  FisheyeViewKind kind = FisheyeViewKind::kOriginal;
  std::array<FisheyeCamera, kMostCameras> cameras;  // panoramas turn with the pan of the first
  bool operator==(const FisheyeView&) const = default;
};

// With the cameras as they begin: spread around a ceiling's or a floor's camera, and looking half
// up or down; beside each other before one on a wall.
CMS_API FisheyeView MakeFisheyeView(FisheyeViewKind kind, FisheyeMount mount);

// A view of a certain size, of a picture of a certain size. Of sizes below 1x1 nothing maps.
class CMS_API FisheyeMap {
 public:
  struct Size {
    int width = 0;
    int height = 0;
    bool operator==(const Size&) const = default;
  };

  // A part of the view: one virtual camera, or one strip of a panorama.
  struct Tile {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    bool strip = false;
    // Of a virtual camera, and its number in the view.
    std::size_t camera = 0;
    FisheyeVector forward;  // of the room, length 1
    FisheyeVector right;    // one pixel to the right
    FisheyeVector down;     // one pixel down
    // Of a strip, in degrees: the centre's pan, from left to right, and the top's and bottom's
    // tilt.
    double pan = 0;
    double span = 0;
    double top = 0;
    double bottom = 0;
  };

  FisheyeMap(const FisheyeLens& lens, const FisheyeView& view, Size source, Size shown);

  // Nothing for a point of the view where the lens saw nothing, or outside it. The point of the
  // camera's picture may lie outside that, as a part of the circle may.
  std::optional<FisheyePoint> ToSource(const FisheyePoint& inView) const;
  // Nothing for what the view does not show. Of several cameras that show it the first.
  std::optional<FisheyePoint> ToView(const FisheyePoint& inSource) const;
  // Also where the lens saw nothing; nothing in the view kOriginal outside the circle.
  std::optional<FisheyeDirection> DirectionAt(const FisheyePoint& inView) const;
  // The number of the virtual camera there.
  std::optional<std::size_t> CameraAt(const FisheyePoint& inView) const;

  const FisheyeLens& Lens() const { return lens_; }
  std::span<const Tile> Tiles() const {
    return std::span(tiles_).first(tileCount_);
  }  // none: as it is

 private:
  const Tile* TileAt(const FisheyePoint& inView) const;
  void AddCamera(const FisheyeCamera& camera, int x, int y, int width, int height);
  void AddStrip(double pan, double span, int y, int height);

  FisheyeLens lens_;
  Size source_;
  Size shown_;
  std::array<Tile, FisheyeView::kMostCameras> tiles_;
  std::size_t tileCount_ = 0;
};

}  // namespace cms
