// The options by which commands name the streams that they receive.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/support/camera_security.h"
#include "tools/support/live_site.h"
#include "tools/support/options.h"

namespace tools {

struct StreamArguments {
  std::vector<std::string> urls;
  std::vector<std::string> transports = {"udp"};
  std::string user;
  std::string password;
  SecurityArguments security;
};

// URL..., --transport, --user, --password and those of camera_security.h. The option of the URLs.
Option AddStreamOptions(Command command, StreamArguments& arguments);

// What they say of the site with that number, from 0. Waits for the camera where its URL says
// onvif[s]://; throws std::runtime_error when that fails.
LiveOptions OptionsOf(const StreamArguments& arguments, std::size_t site);

}  // namespace tools
