#include "tools/stream_options.h"

#include <algorithm>

#include "tools/camera_site.h"

namespace tools {

void AddStreamOptions(CLI::App* command, StreamArguments& arguments) {
  command
      ->add_option("urls", arguments.urls,
                   "rtsp://[user:password@]host[:port]/path, http://... of MJPEG cameras, or "
                   "onvif://[user:password@]host[:port], which asks the camera for its stream")
      ->required()
      ->type_name("URL");
  command
      ->add_option("--transport", arguments.transports,
                   "udp or tcp: one for all URLs, or one for each in their order, as in udp,tcp")
      ->delimiter(',')
      ->check(CLI::IsMember({"udp", "tcp"}))
      ->expected(1, -1)
      ->take_all()
      ->allow_extra_args(false);
  command->add_option("--user", arguments.user, "user name, when the URL carries none");
  command->add_option("--password", arguments.password, "password, when the URL carries none");
}

LiveOptions OptionsOf(const StreamArguments& arguments, std::size_t site) {
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
