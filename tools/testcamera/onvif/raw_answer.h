// Answers that break HTTP, as some devices give them.
#pragma once

#include <libsoup/soup.h>

#include <string>

#include "tools/testcamera/onvif/onvif_options.h"

namespace testcamera {

// Takes the connection from the server and answers in the style's way: truncated, endless or
// silent. The head goes in front of the body, or of what there is in place of it.
void SendRaw(SoupServerMessage* message, GMainContext* context, const OnvifStyle& style,
             const std::string& head, const std::string& body);

}  // namespace testcamera
