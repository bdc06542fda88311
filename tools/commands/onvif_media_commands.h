// orvanta onvif HOST media, snapshot: by whichever media service the camera has.
#pragma once

#include "tools/commands/command.h"
#include "tools/support/camera_site.h"

namespace tools {

// Adds them to the command that reads the site's options.
void AddOnvifMediaCommands(Command onvif, const SiteArguments& site, CommandResult& result);

}  // namespace tools
