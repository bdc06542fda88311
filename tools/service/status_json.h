// A recorder's figures as one JSON object, and for people.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "tools/service/recorder_figures.h"

namespace tools {

nlohmann::ordered_json StatusJson(const RecorderFigures& figures);

// Whether all that is wanted is recorded, and will go on to be: "ok" of the object.
bool IsAllWell(const RecorderFigures& figures);

// Some lines of such an object; what is missing in it is left out.
std::string StatusText(const nlohmann::ordered_json& status);

}  // namespace tools
