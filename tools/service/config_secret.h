// Passwords that a configuration names without holding them.
#pragma once

#include <string>

#include "tools/service/config_table.h"

namespace tools {

// What of the table's keys "password", "password-file" and "credential" is there, of which one at
// most may be; a credential is a file of that name in the folder that systemd names in
// $CREDENTIALS_DIRECTORY. The first line of a file counts. Empty without any of them. `folder` is
// that of the configuration; *plain becomes true when the configuration itself holds the password.
std::string ReadPassword(const ConfigTable& table, const std::string& folder, bool* plain);

}  // namespace tools
