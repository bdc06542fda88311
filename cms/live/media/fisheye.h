// Settings of the fisheye view of a channel: what is known of its lens, and how it is looked at.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

#include "cms/live/media/fisheye/fisheye_view.h"
#include "cms/runtime/api.h"

// What the client application knows of a site's fisheye lens.
struct stFisheyeParameter {
  int mount = 0;  // 0 ceiling, 1 wall, 2 table or floor
  int viewMode =
      0;            // a cms::FisheyeViewKind; 0, and what is none of them: the camera's own picture
  int centerX = 0;  // centre and radius of the lens circle in the decoded picture, pixels;
  int centerY = 0;  // with radius 0 it is looked for in the pictures
  int radius = 0;
  int lens = 0;         // 0 equidistant, 1 equisolid
  int fieldOfView = 0;  // degrees from edge to edge of the circle; 0: 180
};

// Selects what SetDecoder sets, and with it the type behind its pointer.
enum DECODER_PARAMETER_TYPE : int {
  DECODER_PARAMETER_DISPLAY_SIZE = 0,     // const tagSIZE*
  DECODER_PARAMETER_VIEW_MODE = 1,        // const int*
  DECODER_PARAMETER_DEWARP_POSITION = 2,  // const stDewarpPosition*, of the first virtual camera
  DECODER_PARAMETER_DEWARP_ZOOM = 3,      // const float*, likewise
  DECODER_PARAMETER_FISHEYE = 4,          // const stFisheyeParameter*
  DECODER_PARAMETER_DEWARP_CAMERA = 5,    // const stDewarpCamera*
  DECODER_PARAMETER_PLANAR = 6,  // const int*: 1 for LockDecodedPlanes, 0 (at first) for BGRA
};

namespace cms {

// Of the room, as FisheyeCamera has them.
struct stDewarpPosition {
  float pan = 0;   // degrees
  float tilt = 0;  // degrees
};

struct stDewarpCamera {
  int camera = 0;  // 0 to 3
  stDewarpPosition position;
  float zoom = 1;
};

// All of it. Cameras that nobody moved are where MakeFisheyeView puts them.
struct CMS_API FisheyeSettings {
  stFisheyeParameter parameter;
  std::array<std::optional<stDewarpPosition>, FisheyeView::kMostCameras> positions{};
  std::array<float, FisheyeView::kMostCameras> zooms{1, 1, 1, 1};

  bool Dewarps() const;  // else pictures stay as they are
  FisheyeView View() const;
  FisheyeMount Mount() const;
  // Without the circle unless it is given.
  FisheyeLens Lens() const;
  void Move(const stDewarpCamera& camera);  // nothing for one that there is not
};

}  // namespace cms
