// Parts that answers about profiles and about encoders have in common.
#pragma once

#include <string>

#include "tools/testcamera/onvif/camera_settings.h"
#include "tools/testcamera/onvif/soap.h"

namespace testcamera {

void AddEncoder(Element parent, const char* name, const Encoder& encoder,
                const CameraSettings& settings);
void AddMulticast(Element parent, const std::string& address, int port, int ttl, bool autoStart);
void AddResolution(Element parent, const char* name, int width, int height);

}  // namespace testcamera
