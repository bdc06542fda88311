// What a removal did, for people and for programs.
#pragma once

#include <nlohmann/json.hpp>

#include "cms/recording/keep/remove_recordings.h"

namespace tools {

nlohmann::ordered_json RemovalJson(const cms::RemovalReport& report);

// A line for each recording that went, and for each that stays although it was to go; then the sum.
// `would`: nothing was removed. What was not done and why goes to standard error.
void PrintRemoval(const cms::RemovalReport& report, bool would);
void PrintRemovalErrors(const char* command, const cms::RemovalReport& report);

}  // namespace tools
