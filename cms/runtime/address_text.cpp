#include "cms/runtime/address_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace cms {

std::string AddressText(std::uint32_t address) {
  const in_addr network{htonl(address)};
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &network, text, sizeof text);
  return text;
}

std::optional<std::uint32_t> AddressOf(const std::string& text) {
  in_addr network{};
  if (inet_pton(AF_INET, text.c_str(), &network) != 1) {
    return std::nullopt;
  }
  return ntohl(network.s_addr);
}

std::optional<std::uint32_t> SubnetMaskOf(int prefix) {
  if (prefix < 0 || prefix > 32) {
    return std::nullopt;
  }
  return prefix == 0 ? 0 : UINT32_MAX << (32 - prefix);
}

}  // namespace cms
