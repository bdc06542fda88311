// Settings of the fisheye view. No dewarping library exists for this platform: the settings are
// taken and kept, and pictures stay as the camera sends them.
#pragma once

// What the client application knows of a site's fisheye lens.
struct stFisheyeParameter {
  int mount = 0;     // 0 ceiling, 1 wall, 2 table
  int viewMode = 0;  // 0 the camera's own picture; others as a dewarping library numbers them
  int centerX = 0;   // centre and radius of the lens circle in the decoded picture, pixels
  int centerY = 0;
  int radius = 0;
};

// Selects what SetDecoder sets, and with it the type behind its pointer.
enum DECODER_PARAMETER_TYPE : int {
  DECODER_PARAMETER_DISPLAY_SIZE = 0,     // const tagSIZE*
  DECODER_PARAMETER_VIEW_MODE = 1,        // const int*
  DECODER_PARAMETER_DEWARP_POSITION = 2,  // const stDewarpPosition*
  DECODER_PARAMETER_DEWARP_ZOOM = 3,      // const float*
};

struct stDewarpPosition {
  float pan = 0;   // degrees
  float tilt = 0;  // degrees
};
