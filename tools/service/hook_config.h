// The hooks of a configuration file.
#pragma once

#include <string>
#include <vector>

#include "tools/service/config_table.h"
#include "tools/service/hooks.h"

namespace tools {

// Its [[hooks]]. `folder` is that of the configuration; *plain becomes true when it holds a
// password.
std::vector<HookConfig> ReadHooks(const ConfigTable& file, const std::string& folder, bool* plain);

}  // namespace tools
