// Says what a recorder's configuration means, without recording.
#pragma once

#include <string>

#include "tools/service/recorder_config.h"

namespace tools {

// The exit status that says so: nothing helps but to mend the file.
inline constexpr int kWrongFile = 2;

// Prints what is wrong with the file, and what it asks for when nothing is: texts for people, or
// one JSON object. The exit status: 0, or kWrongFile.
int CheckRecorderConfig(const std::string& path, bool json);

// Each problem as a line on standard error.
void TellProblems(const std::string& path, const ConfigProblems& problems);

}  // namespace tools
