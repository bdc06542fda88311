// The receiver report that the library sends (RFC 3550, 6.4.2 and 6.5).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace cms {

inline constexpr std::size_t kReceiverReportSize = 56;

struct ReceiverReportValues {
  std::uint32_t receiverSsrc = 0;
  std::array<std::uint8_t, 4> senderSsrc{};  // as received
  std::uint8_t fractionLost = 0;
  std::uint32_t cumulativeLost = 0;
  std::uint16_t lastSequence = 0;
  bool todaysCameras = false;
};

// A compound packet: RR with one report block, then SDES with a CNAME. Two deliberate
// peculiarities: the 24-bit cumulative loss holds the upper three bytes of the 32-bit count, and
// the SDES chunk names the sender's SSRC. With todaysCameras both are as in the RFC: a sender that
// finds its own SSRC taken takes another one.
std::array<std::uint8_t, kReceiverReportSize> BuildReceiverReport(
    const ReceiverReportValues& values);

}  // namespace cms
