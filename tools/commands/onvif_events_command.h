// orvanta onvif HOST events: what a camera tells, as it comes.
#pragma once

#include <memory>

#include "tools/commands/command.h"
#include "tools/support/camera_site.h"

namespace tools {

// Adds it to the command that reads the site's options.
void AddOnvifEventsCommand(Command onvif, const SiteArguments& site, CommandResult& result);

}  // namespace tools
