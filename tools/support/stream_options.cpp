#include "tools/support/stream_options.h"

#include <algorithm>

#include "tools/support/camera_site.h"

namespace tools {

void AddStreamOptions(Command command, StreamArguments& arguments) {
  command
      .AddOption("urls", arguments.urls,
                 "rtsp://[user:password@]host[:port]/path, http://... of MJPEG cameras, or "
                 "onvif://[user:password@]host[:port], which asks the camera for its stream")
      .Required()
      .TypeName("URL");
  command
      .AddOption("--transport", arguments.transports,
                 "udp or tcp: one for all URLs, or one for each in their order, as in udp,tcp")
      .List()
      .OneOf({"udp", "tcp"});
  command.AddOption("--user", arguments.user, "user name, when the URL carries none");
  command.AddOption("--password", arguments.password, "password, when the URL carries none");
}

LiveOptions OptionsOf(const StreamArguments& arguments, std::size_t site) {
  if (arguments.transports.size() > arguments.urls.size()) {
    throw UsageError("--transport",
                     std::to_string(arguments.transports.size()) +
                         " values, but URLs: " + std::to_string(arguments.urls.size()));
  }
  LiveOptions options;
  options.url = arguments.urls[site];
  options.user = arguments.user;
  options.password = arguments.password;
  if (options.url.starts_with("onvif://")) {
    options.url = FindStream(options.url, &options.user, &options.password);
  }
  options.interleaved =
      arguments.transports[std::min(site, arguments.transports.size() - 1)] == "tcp";
  options.number = static_cast<int>(site);
  return options;
}

}  // namespace tools
