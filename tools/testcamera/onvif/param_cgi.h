// The camera's parameter CGI: names and values, one a line.
#pragma once

#include <string>

#include "tools/testcamera/onvif/operations.h"

namespace testcamera {

inline constexpr char kInvalidValue[] = "Error:invalid value\n";

// The answer to /cgi-bin/admin/param.cgi?QUERY. A value or a name that the camera does not know
// changes nothing and gets kInvalidValue.
std::string AnswerParamCgi(CameraState& camera, const std::string& query);

// The answer to /cgi-bin/tvsystem.cgi?QUERY.
std::string AnswerTvSystemCgi(CameraState& camera, const std::string& query);

}  // namespace testcamera
