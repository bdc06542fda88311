// orvanta onvif HOST ptz: moves a camera.
#pragma once

#include "tools/commands/command.h"
#include "tools/support/camera_site.h"

namespace tools {

// Adds it to the command that reads the site's options.
void AddOnvifPtzCommand(Command onvif, const SiteArguments& site, CommandResult& result);

}  // namespace tools
