// IpAddress: an address of either version of the Internet protocol.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "cms/runtime/api.h"

namespace cms {

// A value of 24 bytes; one made with nothing is no address. An IPv4 address that stands inside an
// IPv6 one (RFC 4291, 2.5.5.2) is that IPv4 address.
class CMS_API IpAddress {
 public:
  IpAddress() = default;
  explicit IpAddress(std::uint32_t ipv4);  // host order; 0 is an address, too
  IpAddress(const std::array<std::uint8_t, 16>& ipv6, std::uint32_t scope);

  // "192.0.2.1", "2001:db8::1", "fe80::1%eth0"; nullopt for anything else, names too.
  static std::optional<IpAddress> Parse(const std::string& text);

  explicit operator bool() const { return family_ != Family::kNone; }
  bool IsV4() const { return family_ == Family::kV4; }
  bool IsV6() const { return family_ == Family::kV6; }
  bool IsMulticast() const;
  std::uint32_t V4() const;  // host order; 0 unless IsV4
  // Of an IPv4 address the mapped one.
  const std::array<std::uint8_t, 16>& V6() const { return bytes_; }
  std::uint32_t Scope() const { return scope_; }  // the interface of a link-local one, 0: none

  std::string Text() const;     // as Parse reads it; empty for no address
  std::string UrlText() const;  // the same, in brackets where a URL wants them

  bool operator==(const IpAddress&) const = default;

 private:
  enum class Family : std::uint8_t { kNone, kV4, kV6 };

  std::array<std::uint8_t, 16> bytes_{};
  std::uint32_t scope_ = 0;
  Family family_ = Family::kNone;
};

}  // namespace cms
