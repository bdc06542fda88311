// orvanta onvif HOST set-clock, ntp, users, relays ...: what installers do at a camera.
#pragma once

#include "tools/commands/command.h"
#include "tools/support/camera_site.h"

namespace tools {

// Adds them to the command that reads the site's options.
void AddOnvifDeviceCommands(Command onvif, const SiteArguments& site, CommandResult& result);

}  // namespace tools
