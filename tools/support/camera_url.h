// The URLs of cameras on the command line.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "cms/streaming/rtsp_url.h"

namespace tools {

// Throws UsageError for what is no URL of one of these schemes ("rtsp", "http"), or asks for what
// is not supported; it shows no password. `form` tells how it is written.
cms::CameraUrl ReadCameraUrl(const std::string& text,
                             std::initializer_list<std::string_view> schemes,
                             const std::string& form);

// Whether it names a camera that is asked for its streams.
inline bool IsOnvifUrl(std::string_view url) {
  return url.starts_with("onvif://") || url.starts_with("onvifs://");
}

}  // namespace tools
