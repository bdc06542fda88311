// Which URLs the requests name that follow a description (RFC 2326, C.1.1).
#pragma once

#include <string>
#include <string_view>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {

// What relative addresses of the description in this answer are relative to: its Content-Base, else
// its Content-Location, else what was asked for. Never with a user or a password in it, and never
// anything that could not stand in a request.
std::string BaseUrlOf(const RTSPMessage& answer, const std::string& requestUrl);

// The URL of an "a=control:" line: the base itself for "*" and nothing, a whole URL as it is, the
// base's server with another path for one that begins with "/", else behind the base. Cameras leave
// out the "/" at the base's end, which by RFC 3986 would take the base's last part away: here
// nothing is taken.
std::string ControlUrl(const std::string& base, std::string_view control);

// From the first "/" behind the server on; "/" when there is none.
std::string PathOfUrl(const std::string& url);

}  // namespace cms
