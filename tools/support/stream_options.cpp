#include "tools/support/stream_options.h"

#include <algorithm>

#include "tools/support/camera_site.h"
#include "tools/support/transport_words.h"

namespace tools {

Option AddStreamOptions(Command command, StreamArguments& arguments) {
  const Option urls =
      command
          .AddOption("urls", arguments.urls,
                     "rtsp[s]://[user:password@]host[:port]/path, http://... of MJPEG cameras, or "
                     "onvif[s]://[user:password@]host[:port], which asks the camera for its stream")
          .Required()
          .TypeName("URL");
  command
      .AddOption(
          "--transport", arguments.transports,
          "udp, tcp, http (RTSP inside HTTP) or multicast: one for all URLs, or one for each in "
          "their order, as in udp,tcp. Where nothing comes over UDP, TCP is taken")
      .List()
      .OneOf(TransportWords());
  command.AddOption("--user", arguments.user, "user name, when the URL carries none");
  command.AddOption("--password", arguments.password, "password, when the URL carries none");
  AddSecurityOptions(command, arguments.security);
  return urls;
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
  options.transport =
      TransportOf(arguments.transports[std::min(site, arguments.transports.size() - 1)]);
  options.security = SecurityOf(arguments.security, site, arguments.urls.size());
  options.number = static_cast<int>(site);
  FindStream(&options);
  return options;
}

}  // namespace tools
