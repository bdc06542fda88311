// The camera's PTZ service: a test picture that is larger than what is sent of it, and where the
// camera looks in it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "tools/testcamera/onvif/operations.h"
#include "tools/testcamera/onvif/ready_timer.h"
#include "tools/testcamera/picture_view.h"

namespace testcamera {

// On the thread that runs the context.
class PtzService {
 public:
  PtzService(CameraState& state, GMainContext* context,
             std::function<void(const PictureDirection&)> look);

  void AddOperations(Operations* operations);
  std::string State() const;  // for tests, as JSON

 private:
  struct Preset {
    std::string name;
    PictureDirection direction;
  };

  void CheckProfile(const Call& call) const;
  void GetStatus(Call& call);
  void ContinuousMove(Call& call);
  void AbsoluteMove(Call& call);
  void RelativeMove(Call& call);
  void Stop(Call& call);
  void GetPresets(Call& call);
  void SetPreset(Call& call);
  Preset& PresetOf(const Call& call);
  void GoTo(const PictureDirection& target);
  void Step();
  bool IsMoving() const;

  CameraState& state_;
  const std::function<void(const PictureDirection&)> look_;
  PictureDirection now_;
  PictureDirection home_;
  PictureDirection speed_;    // a second
  PictureDirection target_;   // where a move ends
  std::int64_t moveEnd_ = 0;  // monotonic time
  std::int64_t stepped_ = 0;
  std::map<std::string, Preset> presets_;  // by token
  unsigned lastPreset_ = 0;
  ReadyTimer timer_;
};

// The configuration as it stands in a profile and in answers.
void AddPtzConfiguration(Element parent, const char* name);

}  // namespace testcamera
