// Cameras as CSV (RFC 4180), for spreadsheets.
#pragma once

#include <string>
#include <vector>

#include "fleet/fleet_view.h"

namespace tools {

struct ListedCamera {
  std::string name;
  cms::fleet::FleetCamera camera;  // without site and secret
  std::string password;            // in the clear; empty: as it was
};

// The first line names the columns, in any order: camera and url, and those of CameraListText.
// Throws std::runtime_error that names the line.
std::vector<ListedCamera> ReadCameraList(const std::string& path);
std::vector<ListedCamera> ParseCameraList(const std::string& text);
std::string CameraListText(const cms::fleet::FleetView& view);

}  // namespace tools
