// SenderReport: what a camera's RTCP says of its clock (RFC 3550, 6.4.1).
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace cms {

// One moment, by the camera's clock and in its stream.
struct SenderReport {
  std::uint32_t source = 0;     // SSRC
  std::uint64_t ntp = 0;        // seconds since 1900 in the upper half, fractions in the lower
  std::uint32_t timestamp = 0;  // of RTP
};

// The first sender report of a compound packet; nothing when it has none, or one without a clock.
std::optional<SenderReport> ReadSenderReport(std::span<const std::uint8_t> packet);

// Microseconds since 1970-01-01 UTC. The seconds of NTP begin anew in 2036: the time is taken that
// is no further than half a round from `nearSeconds`, a time of ours.
std::int64_t MicrosecondsOfNtp(std::uint64_t ntp, std::int64_t nearSeconds);

}  // namespace cms
