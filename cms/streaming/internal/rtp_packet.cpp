#include "cms/streaming/internal/rtp_packet.h"

namespace cms {

std::optional<std::span<const std::uint8_t>> RTPPayload(std::span<const std::uint8_t> packet) {
  constexpr std::size_t kFixedHeader = 12;
  if (packet.size() < kFixedHeader || packet[0] >> 6 != 2) {
    return std::nullopt;
  }
  std::size_t offset = kFixedHeader + std::size_t{4} * (packet[0] & 0x0F);
  if ((packet[0] & 0x10) != 0) {  // extension: 16-bit profile, 16-bit length in words
    if (offset + 4 > packet.size()) {
      return std::nullopt;
    }
    offset +=
        4 + std::size_t{4} * static_cast<std::size_t>(packet[offset + 2] << 8 | packet[offset + 3]);
  }
  // Padding: the last byte counts the padding bytes, itself included.
  const std::size_t padding = (packet[0] & 0x20) != 0 ? packet.back() : 0;
  if (offset + padding > packet.size()) {
    return std::nullopt;
  }
  return packet.subspan(offset, packet.size() - offset - padding);
}

}  // namespace cms
