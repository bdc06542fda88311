// What records cameras for a recorder of a fleet.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fleet/fleet_view.h"

namespace cms::fleet {

struct RecordedCamera {
  CameraCopy copy;
  FleetCamera camera;
  std::string password;  // in the clear
};

struct CameraRecorderStatus {
  bool answers = false;
  bool isStuck = false;              // the disk takes no data, or it answers no more
  std::int64_t oldestWaiting = 0;    // milliseconds that something waits for the disk
  std::map<unsigned, bool> records;  // by site numbers: whether frames are being recorded now
};

// For one thread. Nobody waits for a camera or a disk in it.
class CameraRecorder {
 public:
  virtual ~CameraRecorder() = default;
  // From now on these, and no others: those that are as they were lose no frame.
  virtual void Record(const std::vector<RecordedCamera>& cameras) = 0;
  virtual CameraRecorderStatus Status() = 0;
};

}  // namespace cms::fleet
