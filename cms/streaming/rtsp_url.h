// Reading the URLs that users type for cameras.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"
#include "cms/runtime/ip_address.h"

namespace cms {

// A URL of the form scheme://[user[:password]@]host[:port][/path] (RFC 3986).
struct CameraUrl {
  std::string scheme;      // lower case
  std::string user;        // percent-decoded
  std::string password;    // percent-decoded
  std::string host;        // a name, an IPv4 address or, without its brackets, an IPv6 one
  std::uint16_t port = 0;  // the scheme's own (554, 322, 80, 443) when the URL names none
  bool portGiven = false;  // the URL names it
  std::string path;        // from the first "/" or "?" on; "/" when absent
  std::string plain;       // the whole URL without user and password: what requests carry
};

// nullopt when the text is no such URL: no scheme, an empty host, a port out of 1..65535, control
// characters or blanks, or more than 2,048 bytes.
CMS_API std::optional<CameraUrl> ParseCameraUrl(std::string_view text);
// The same; what is wrong goes to *why, for people.
CMS_API std::optional<CameraUrl> ParseCameraUrl(std::string_view text, std::string* why);

// The IPv4 address (host order) of a name or dotted text; blocks while the resolver asks. nullopt
// when there is none.
CMS_API std::optional<std::uint32_t> ResolveIPv4(const std::string& host);

// The address of a name or of an address's own text, of a name IPv4's before IPv6's; blocks while
// the resolver asks. nullopt when there is none.
CMS_API std::optional<IpAddress> ResolveAddress(const std::string& host);

// The address (host order) of dotted text such as "192.0.2.1"; nullopt for anything else.
CMS_API std::optional<std::uint32_t> ParseIPv4(const std::string& text);

// "192.0.2.1" of an address in host order.
CMS_API std::string IPv4Text(std::uint32_t address);

}  // namespace cms
