#include "cms/streaming/internal/sender_report.h"

#include <cstddef>

#include "cms/live/media/frame_moment.h"

namespace cms {
namespace {

constexpr std::size_t kHeader = 4;
constexpr std::size_t kReport = 28;  // header, SSRC and sender information
constexpr std::uint8_t kSenderReportType = 200;
constexpr std::int64_t kFrom1900To1970 = 2'208'988'800;  // s

std::uint32_t Number32(std::span<const std::uint8_t> bytes, std::size_t at) {
  return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
         std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

}  // namespace

std::optional<SenderReport> ReadSenderReport(std::span<const std::uint8_t> packet) {
  constexpr unsigned kVersion = 2;
  while (packet.size() >= kHeader && packet[0] >> 6u == kVersion) {
    const std::size_t size = kHeader * (1 + (std::size_t{packet[2]} << 8 | packet[3]));
    if (size > packet.size()) {
      break;
    }
    if (packet[1] == kSenderReportType && size >= kReport) {
      const SenderReport report{Number32(packet, 4),
                                std::uint64_t{Number32(packet, 8)} << 32 | Number32(packet, 12),
                                Number32(packet, 16)};
      // A sender without a clock says 0 (RFC 3550, 6.4.1).
      return report.ntp != 0 ? std::optional(report) : std::nullopt;
    }
    packet = packet.subspan(size);
  }
  return std::nullopt;
}

std::int64_t MicrosecondsOfNtp(std::uint64_t ntp, std::int64_t nearSeconds) {
  const auto near = static_cast<std::uint32_t>(nearSeconds + kFrom1900To1970);
  // The difference within half a round decides which round it is.
  const auto difference = static_cast<std::int32_t>(static_cast<std::uint32_t>(ntp >> 32) - near);
  const auto fraction = static_cast<std::int64_t>((ntp & 0xFFFFFFFF) * kMicro >> 32);
  return (nearSeconds + difference) * kMicro + fraction;
}

}  // namespace cms
