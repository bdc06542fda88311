#include "cms/runtime/ip_address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace cms {
namespace {

constexpr std::array<std::uint8_t, 12> kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

// An interface's name or number; 0 when there is none of that name.
std::uint32_t ScopeOf(const std::string& zone) {
  std::uint32_t number = 0;
  const char* const end = zone.data() + zone.size();
  const auto read = std::from_chars(zone.data(), end, number);
  return read.ec == std::errc{} && read.ptr == end ? number : if_nametoindex(zone.c_str());
}

std::string ZoneOf(std::uint32_t scope) {
  char name[IF_NAMESIZE] = "";
  return if_indextoname(scope, name) != nullptr ? name : std::to_string(scope);
}

}  // namespace

IpAddress::IpAddress(std::uint32_t ipv4) : family_(Family::kV4) {
  std::copy(kMappedPrefix.begin(), kMappedPrefix.end(), bytes_.begin());
  for (std::size_t i = 0; i < 4; ++i) {
    bytes_[15 - i] = static_cast<std::uint8_t>(ipv4 >> (8 * i));
  }
}

IpAddress::IpAddress(const std::array<std::uint8_t, 16>& ipv6, std::uint32_t scope) : bytes_(ipv6) {
  const bool mapped = std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), ipv6.begin());
  family_ = mapped ? Family::kV4 : Family::kV6;
  scope_ = mapped ? 0 : scope;
}

std::optional<IpAddress> IpAddress::Parse(const std::string& text) {
  in_addr ipv4{};
  if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
    return IpAddress(ntohl(ipv4.s_addr));
  }
  const std::size_t percent = text.find('%');
  in6_addr ipv6{};
  if (inet_pton(AF_INET6, text.substr(0, percent).c_str(), &ipv6) != 1) {
    return std::nullopt;
  }
  std::uint32_t scope = 0;
  if (percent != std::string::npos) {
    scope = ScopeOf(text.substr(percent + 1));
    if (scope == 0) {
      return std::nullopt;
    }
  }
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), ipv6.s6_addr, bytes.size());
  return IpAddress(bytes, scope);
}

bool IpAddress::IsMulticast() const {
  return IsV4() ? (bytes_[12] & 0xF0) == 0xE0 : IsV6() && bytes_[0] == 0xFF;
}

std::uint32_t IpAddress::V4() const {
  if (!IsV4()) {
    return 0;
  }
  return static_cast<std::uint32_t>(bytes_[12]) << 24 |
         static_cast<std::uint32_t>(bytes_[13]) << 16 |
         static_cast<std::uint32_t>(bytes_[14]) << 8 | bytes_[15];
}

std::string IpAddress::Text() const {
  char text[INET6_ADDRSTRLEN] = "";
  if (IsV4()) {
    inet_ntop(AF_INET, bytes_.data() + kMappedPrefix.size(), text, sizeof text);
  } else if (IsV6()) {
    inet_ntop(AF_INET6, bytes_.data(), text, sizeof text);
  }
  return scope_ != 0 ? std::string(text) + "%" + ZoneOf(scope_) : text;
}

std::string IpAddress::UrlText() const {
  return IsV6() ? "[" + Text() + "]" : Text();
}

}  // namespace cms
