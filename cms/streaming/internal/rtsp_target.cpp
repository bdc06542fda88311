#include "cms/streaming/internal/rtsp_target.h"

#include "cms/runtime/ip_address.h"
#include "cms/streaming/rtsp_url.h"

namespace cms {
namespace {

constexpr std::uint16_t kHttpPort = 80;  // of a camera's web server, which serves tunnels
constexpr std::uint16_t kHttpsPort = 443;

}  // namespace

RTSPTarget TargetOf(const stRTSPClientConfig& config, std::string* problem) {
  RTSPTarget target;
  target.config = config;
  target.askedTransport = config.transport;
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
  if (!url || (url->scheme != "rtsp" && url->scheme != "rtsps")) {
    *problem = "not an RTSP URL of the form rtsp[s]://[user:password@]host[:port]/path: " +
               (url ? url->scheme + ":// is not supported" : why);
    return target;
  }
  if (url->scheme == "rtsps") {
    target.tls = {config.certificate, url->host, PlainFingerprint(config.certificateFingerprint)};
    if (config.certificate == CertificateCheck::kPinned && target.tls->fingerprint.empty()) {
      *problem = "the fingerprint of the certificate is not 32 bytes of SHA-256 in hexadecimal";
      return target;
    }
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
    if (config.transport == cms::kRtspTransportHttp && !url->portGiven) {
      target.port = target.tls ? kHttpsPort : kHttpPort;
    }
  }
  target.usable = true;
  return target;
}

std::string RTSPTarget::HostAndPort() const {
  const auto address = IpAddress::Parse(host);
  return (address ? address->UrlText() : host) + ":" + std::to_string(port);
}

}  // namespace cms
