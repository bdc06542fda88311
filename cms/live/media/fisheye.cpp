#include "cms/live/media/fisheye.h"

namespace cms {

bool FisheyeSettings::Dewarps() const {
  return parameter.viewMode > 0 && parameter.viewMode < kFisheyeViewKinds;
}

FisheyeMount FisheyeSettings::Mount() const {
  switch (parameter.mount) {
    case 1:
      return FisheyeMount::kWall;
    case 2:
      return FisheyeMount::kFloor;
    default:
      return FisheyeMount::kCeiling;
  }
}

FisheyeView FisheyeSettings::View() const {
  const auto kind =
      Dewarps() ? static_cast<FisheyeViewKind>(parameter.viewMode) : FisheyeViewKind::kOriginal;
  FisheyeView view = MakeFisheyeView(kind, Mount());
  for (std::size_t i = 0; i < view.cameras.size(); ++i) {
    if (positions[i]) {
      view.cameras[i].pan = positions[i]->pan;
      view.cameras[i].tilt = positions[i]->tilt;
    }
    view.cameras[i].zoom = zooms[i];
  }
  return view;
}

FisheyeLens FisheyeSettings::Lens() const {
  constexpr double kUsualFieldOfView = 180;
  FisheyeLens lens;
  lens.projection =
      parameter.lens == 1 ? FisheyeProjection::kEquisolid : FisheyeProjection::kEquidistant;
  lens.mount = Mount();
  lens.fieldOfView = parameter.fieldOfView > 0 ? parameter.fieldOfView : kUsualFieldOfView;
  if (parameter.radius > 0) {
    lens.circle = {static_cast<double>(parameter.centerX), static_cast<double>(parameter.centerY),
                   static_cast<double>(parameter.radius)};
  }
  return lens;
}

void FisheyeSettings::Move(const stDewarpCamera& camera) {
  if (camera.camera >= 0 && static_cast<std::size_t>(camera.camera) < positions.size()) {
    positions[static_cast<std::size_t>(camera.camera)] = camera.position;
    zooms[static_cast<std::size_t>(camera.camera)] = camera.zoom;
  }
}

}  // namespace cms
