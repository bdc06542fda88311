#include "cms/streaming/rtsp_url.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>

namespace cms {
namespace {

constexpr std::size_t kLongestUrl = 2048;

int HexDigit(char c) {
  const char digit[] = {c, '\0'};
  int value = -1;
  std::from_chars(digit, digit + 1, value, 16);
  return value;
}

std::string PercentDecode(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexDigit(text[i + 1]) >= 0 &&
        HexDigit(text[i + 2]) >= 0) {
      result.push_back(static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2])));
      i += 2;
    } else {
      result.push_back(text[i]);
    }
  }
  return result;
}

std::uint16_t DefaultPort(std::string_view scheme) {
  if (scheme == "rtsp") {
    return 554;
  }
  if (scheme == "rtsps") {
    return 322;
  }
  return scheme == "https" ? 443 : 80;
}

}  // namespace

std::optional<CameraUrl> ParseCameraUrl(std::string_view text) {
  std::string why;
  return ParseCameraUrl(text, &why);
}

std::optional<CameraUrl> ParseCameraUrl(std::string_view text, std::string* why) {
  const auto fail = [why](const char* what) {
    *why = what;
    return std::nullopt;
  };
  const bool unprintable = std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
  });
  const std::size_t schemeEnd = text.find("://");
  if (unprintable) {
    return fail("it holds a blank or a control character (%20 stands for a blank)");
  }
  if (text.size() > kLongestUrl) {
    return fail("it is longer than 2048 bytes");
  }
  if (schemeEnd == std::string_view::npos || schemeEnd == 0) {
    return fail("it does not begin with a scheme and \"://\"");
  }
  CameraUrl url;
  for (const char c : text.substr(0, schemeEnd)) {
    url.scheme.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }

  const std::string_view rest = text.substr(schemeEnd + 3);
  const std::size_t pathStart = std::min(rest.find_first_of("/?"), rest.size());
  std::string_view authority = rest.substr(0, pathStart);
  const std::string_view path = rest.substr(pathStart);
  url.path = path.empty() ? "/" : std::string(path);

  // The last "@": passwords typed without percent-encoding may hold one.
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
    const std::string_view credentials = authority.substr(0, at);
    const std::size_t colon = std::min(credentials.find(':'), credentials.size());
    url.user = PercentDecode(credentials.substr(0, colon));
    if (colon < credentials.size()) {
      url.password = PercentDecode(credentials.substr(colon + 1));
    }
    authority.remove_prefix(at + 1);
  }

  const std::string_view hostAndPort = authority;
  const std::size_t bracket = authority.starts_with('[') ? authority.find(']') : 0;
  if (bracket == std::string_view::npos) {
    return fail("its IPv6 address has no \"]\" behind it");
  }
  url.port = DefaultPort(url.scheme);
  if (const std::size_t colon = authority.find(':', bracket); colon != std::string_view::npos) {
    const std::string_view digits = authority.substr(colon + 1);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), url.port);
    if (error != std::errc{} || end != digits.data() + digits.size() || url.port == 0) {
      return fail("its port is not a number from 1 to 65535");
    }
    url.portGiven = true;
    authority = authority.substr(0, colon);
  }
  if (authority.empty()) {
    return fail("it names no host");
  }
  url.host = authority;
  if (bracket > 0) {
    url.host = PercentDecode(authority.substr(1, bracket - 1));  // "%25" in front of its interface
    if (authority.size() != bracket + 1 || !IpAddress::Parse(url.host)) {
      return fail("what stands in brackets is no IPv6 address of this host's networks");
    }
  }
  url.plain = url.scheme + "://" + std::string(hostAndPort) + std::string(path);
  return url;
}

std::optional<std::uint32_t> ResolveIPv4(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
    return std::nullopt;
  }
  std::optional<std::uint32_t> address;
  if (found != nullptr && found->ai_family == AF_INET) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, found->ai_addr, sizeof ipv4);
    address = ntohl(ipv4.sin_addr.s_addr);
  }
  freeaddrinfo(found);
  return address;
}

std::optional<IpAddress> ResolveAddress(const std::string& host) {
  if (const auto told = IpAddress::Parse(host)) {
    return told;
  }
  if (const auto ipv4 = ResolveIPv4(host)) {
    return IpAddress(*ipv4);
  }
  addrinfo hints{};
  hints.ai_family = AF_INET6;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
    return std::nullopt;
  }
  sockaddr_in6 ipv6{};
  std::memcpy(&ipv6, found->ai_addr, std::min<std::size_t>(found->ai_addrlen, sizeof ipv6));
  freeaddrinfo(found);
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), &ipv6.sin6_addr, bytes.size());
  return IpAddress(bytes, ipv6.sin6_scope_id);
}

std::optional<std::uint32_t> ParseIPv4(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
    return std::nullopt;
  }
  return ntohl(address.s_addr);
}

std::string IPv4Text(std::uint32_t address) {
  return std::to_string(address >> 24) + '.' + std::to_string(address >> 16 & 255) + '.' +
         std::to_string(address >> 8 & 255) + '.' + std::to_string(address & 255);
}

}  // namespace cms
