// The test camera's command line: read by orvanta-camera, and by `orvanta camera`, which starts it,
// so that the command's help, page and completion know its options.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/support/options.h"
#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/onvif/onvif_options.h"

namespace testcamera {

inline constexpr char kAbout[] = "Test cameras: real RTSP servers";

struct CameraArguments {
  CameraOptions camera;
  int count = 1;
  std::string size = "640x360";
  std::vector<std::string> transports;
  std::optional<std::uint16_t> httpPort;   // no HTTP without
  std::optional<std::uint16_t> onvifPort;  // no ONVIF without
  OnvifOptions onvif;
  bool json = false;
};

// `arguments` lives as long as the command line.
void AddCameraOptions(tools::Command command, CameraArguments& arguments);

}  // namespace testcamera
