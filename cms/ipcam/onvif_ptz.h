// OnvifPtz moves a camera: pan, tilt and zoom.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_connection.h"
#include "cms/ipcam/onvif_types.h"
#include "cms/runtime/api.h"

namespace cms {

// Speeds are parts of the camera's highest: -1 to 1, positive to the right, upwards, nearer.
// Positions and translations are in the camera's own numbers, whose limits PtzFeatures tells.
struct PtzVector {
  std::optional<double> pan;  // without a value it is left alone; pan and tilt go together
  std::optional<double> tilt;
  std::optional<double> zoom;
};

struct PtzRange {
  std::string space;  // the URI of what the numbers mean; empty: the camera cannot do it
  stRange x;          // pan, or zoom
  stRange y;          // tilt; not of zoom
};

// What the camera can do and within which limits.
struct PtzFeatures {
  std::string profileToken;  // of the media profile that is moved
  std::string nodeToken;
  PtzRange panTiltPosition;
  PtzRange zoomPosition;
  PtzRange panTiltTranslation;
  PtzRange zoomTranslation;
  PtzRange panTiltSpeed;
  PtzRange zoomSpeed;
  int mostPresets = 0;
  bool home = false;
};

struct PtzPreset {
  std::string token;
  std::string name;
  PtzVector position;  // where the camera tells it
};

struct PtzStatus {
  PtzVector position;  // where the camera tells it
  bool moving = false;
};

// The first operation asks for the camera's profiles as well.
class CMS_API OnvifPtz : public OnvifConnection {
 public:
  explicit OnvifPtz(const OnvifAccess& access);
  ~OnvifPtz();

  // Another profile than the first one that can be moved.
  void SetProfile(const std::string& token);
  bool ReadFeatures(PtzFeatures& features);

  // Goes on until Stop, at most for so many seconds: the camera stops by itself then, also when
  // this program is gone.
  bool Move(const PtzVector& speed, int seconds);
  bool Stop();
  bool MoveTo(const PtzVector& position, std::optional<double> speed = {});
  bool MoveBy(const PtzVector& translation, std::optional<double> speed = {});

  bool ReadPresets(std::vector<PtzPreset>& presets);
  bool GoToPreset(const std::string& token);
  // Where the camera looks now; the token is that of the preset to be replaced, or, when empty,
  // that of the new one afterwards.
  bool SetPreset(const std::string& name, std::string& token);
  bool RemovePreset(const std::string& token);
  bool GoHome();
  bool SetHome();
  bool ReadStatus(PtzStatus& status);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace cms
