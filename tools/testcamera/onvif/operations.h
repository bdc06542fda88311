// What the camera's three services answer, operation by operation.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/testcamera/onvif/camera_settings.h"
#include "tools/testcamera/onvif/device_clock.h"
#include "tools/testcamera/onvif/onvif_options.h"
#include "tools/testcamera/onvif/soap.h"

namespace testcamera {

// The camera that an operation reads and changes.
struct CameraState {
  CameraState(const CameraOptions& cameraOptions, const OnvifOptions& onvifOptions)
      : camera(cameraOptions),
        onvif(onvifOptions),
        clock(onvifOptions.clockOffset, onvifOptions.timeZone) {
    Reset();
  }

  // Back to what the factory set.
  void Reset() {
    settings = FactorySettings(camera, onvif.streams);
    if (onvif.style.fisheye) {
      settings.others["Fisheye.Mount"] = "ceiling";
    }
  }

  const CameraOptions camera;
  const OnvifOptions onvif;
  CameraSettings settings;
  DeviceClock clock;
  std::string serial;                      // of this camera, among several
  std::string password = camera.password;  // as it was set last
  bool relayActive = false;
};

struct Call {
  CameraState& camera;
  const xmlNode* request;   // the operation's element
  Element answer;           // its response's
  const std::string host;   // the camera's address as the client reached it
  const std::string onvif;  // "http://HOST:PORT/onvif/"
  const std::string rtsp;   // "rtsp://HOST:PORT"
  const std::string path;   // of the request
  bool later = false;       // the operation answers when something happens
};

struct Operation {
  bool open = false;  // answered without a token
  std::function<void(Call&)> run;
};

// What the camera says of itself to whoever looks for one.
std::vector<std::string> Scopes(CameraState& camera);

// By namespace and local name.
using Operations = std::map<std::pair<std::string, std::string>, Operation>;

void AddDeviceOperations(Operations* operations);
void AddNetworkOperations(Operations* operations);
void AddMediaOperations(Operations* operations);
void AddMedia2Operations(Operations* operations);
void AddEncoderOperations(Operations* operations);
void AddImagingOperations(Operations* operations);

// Values out of a request; a fault ter:InvalidArgVal when it is there and is not of that kind.
void Read(const xmlNode* parent, const char* path, std::string* value);
void Read(const xmlNode* parent, const char* path, bool* value);
void ReadNumber(const xmlNode* parent, const char* path, int lowest, int highest, int* value);
void ReadNumber(const xmlNode* parent, const char* path, double lowest, double highest,
                double* value);
void ReadWord(const xmlNode* parent, const char* path, const std::vector<std::string>& words,
              std::string* value);
void ReadAddress(const xmlNode* parent, const char* path, std::string* value);

[[noreturn]] void InvalidValue(const std::string& what);

}  // namespace testcamera
