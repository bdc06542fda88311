// What is read from a camera, and set, over its parameter CGI.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cms {

// One parameter, without the "root." that answers put in front of its name.
struct stCameraParameter {
  std::wstring name;
  std::wstring value;
  bool operator==(const stCameraParameter&) const = default;
};

// One stream of a resolution list.
struct stStreamResolution {
  std::int32_t stream = -1;  // its number, by the maps of cms/ipcam/capability_tables.h
  std::wstring key;          // of the resolution table; "disable": off
};

struct stResolutionConfiguration {
  std::wstring combination;                 // as the camera writes it
  std::vector<stStreamResolution> streams;  // empty when the combination is none of three to five
  bool fisheye = false;
  bool pal = false;  // a 50 Hz system was detected
};

}  // namespace cms
