// The texts of the parameter CGI: what is asked and set, and what comes back.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/param_types.h"

namespace cms {

// "Image.I0.Appearance.Resolution", the list of the streams' resolutions.
extern const std::wstring_view kResolutionParameter;

// The path that lists these groups; of none: all parameters.
std::wstring ListPath(const std::vector<std::wstring>& groups);
std::wstring ResolutionListPath();  // resolutions, image source and fisheye

// The path that sets the parameters, each under the name that updates go by. Nothing, with the
// reason in `error`, when one cannot be set or not to this value.
std::optional<std::wstring> UpdatePath(const std::vector<stCameraParameter>& parameters,
                                       std::string& error);

// The same for a list of three to five resolution keys; only some patterns of streams that are off
// are taken by cameras.
std::optional<std::wstring> ResolutionUpdatePath(std::wstring_view combination, std::string& error);

// The lines "root.NAME=VALUE" of an answer; others are skipped.
std::vector<stCameraParameter> ParseParameters(std::wstring_view answer);
bool IsInvalidValueAnswer(std::wstring_view answer);

// Nothing when the answer reports an invalid value or tells no resolutions.
std::optional<stResolutionConfiguration> ParseResolutions(std::wstring_view answer);

}  // namespace cms
