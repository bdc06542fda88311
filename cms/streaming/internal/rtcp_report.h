// The receiver report that the library sends (RFC 3550, 6.4.2 and 6.5).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace cms {

inline constexpr std::size_t kReceiverReportSize = 56;

struct ReceiverReportValues {
  std::uint32_t receiver_ssrc = 0;
  std::array<std::uint8_t, 4> sender_ssrc{};  // as received
  std::uint8_t fraction_lost = 0;
  std::uint32_t cumulative_lost = 0;
  std::uint16_t last_sequence = 0;
};

// A compound packet: RR with one report block, then SDES with a CNAME. Two deliberate
// peculiarities: the 24-bit cumulative loss holds the upper three bytes of the 32-bit count, and
// the SDES chunk names the sender's SSRC.
std::array<std::uint8_t, kReceiverReportSize> BuildReceiverReport(
    const ReceiverReportValues& values);

}  // namespace cms
