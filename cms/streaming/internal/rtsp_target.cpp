#include "cms/streaming/internal/rtsp_target.h"

#include "cms/streaming/rtsp_url.h"

namespace cms {

RTSPTarget TargetOf(const stRTSPClientConfig& config, std::string* problem) {
  RTSPTarget target;
  target.config = config;
  target.port = config.port;
  const std::string address = config.address != 0 ? IPv4Text(config.address) : "";
  if (config.kind != kSiteKindUrl) {
    target.host = address;
    target.url = "rtsp://" + address + config.path;
    target.usable = true;
    return target;
  }
  std::string why;
  const auto url = ParseCameraUrl(config.path, &why);
  if (!url || url->scheme != "rtsp") {
    *problem = "not an RTSP URL of the form rtsp://[user:password@]host[:port]/path: " +
               (url ? url->scheme + ":// is not supported" +
                          (url->scheme == "rtsps" ? " (RTSP over TLS)" : "")
                    : why);
    return target;
  }
  target.url = url->plain;
  target.host = address;
  if (config.user.empty() && config.password.empty()) {
    target.config.user = url->user;
    target.config.password = url->password;
  }
  if (config.address == 0) {
    target.host = url->host;
    target.port = url->port;
  }
  target.usable = true;
  return target;
}

}  // namespace cms
